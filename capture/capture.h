// What a capture holds, for those who show it or play it: the devices, their transfers, and what else happened.
//
// readCapture() reads recordings of gvusb and captures of usbmon that others have made (link types 189 and 220, pcap and
// pcapng). A capture that ends in the middle, or lacks something, is read as far as it goes; the notes say what is missing.
//
// Any thread.
#pragma once

#include "capture/pcapng_writer.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace capture {

// The file is no capture, or not one of USB. what() names the file and says why.
class CaptureError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A device from its arrival (or the first that was seen of it) to its departure. One that returns is another device.
struct Device {
    unsigned bus = 0;
    unsigned address = 0;
    std::string name;  // in sysfs, such as "1-2.3": the bus and the ports; empty if unknown
    std::string speed; // in Mbit/s, as in sysfs, such as "480"; empty if unknown

    std::optional<Time> came;  // if it came during the capture
    std::optional<Time> left;  // if it left during the capture
    std::size_t firstSeen = 0; // position, as those of transfers and events
    std::optional<std::size_t> cameAt;
    std::optional<std::size_t> leftAt;

    // As the device or the kernel's copy gave them, the longest one of each; empty or missing if they were not read.
    Bytes descriptor;
    std::map<unsigned, Bytes> configurations;               // by index
    std::map<std::pair<unsigned, unsigned>, Bytes> strings; // descriptors by language and index
    std::optional<unsigned> configuration;                  // the value of the active one

    // The kernel's copies of its strings, which are known even if the program did not read them.
    std::string manufacturer;
    std::string product;
    std::string serial;

    // 0 if the descriptor is unknown.
    std::uint16_t vendorId() const;
    std::uint16_t productId() const;
    bool isHub() const;
};

struct Transfer {
    std::uint64_t id = 0;
    std::size_t device = 0; // index
    TransferType type = TransferType::bulk;
    std::uint8_t endpoint = 0;        // with the direction bit
    std::optional<SetupPacket> setup; // of a control transfer

    // When it was submitted and completed. Only one of the two is missing.
    std::optional<Time> submitted;
    std::optional<Time> completed;
    // Positions in the order of everything in the capture; meaningful if the time is there.
    std::size_t submittedAt = 0;
    std::size_t completedAt = 0;

    Bytes out;
    Bytes in;
    std::uint32_t requested = 0;      // bytes asked for or to be sent; without the setup packet
    std::uint32_t actual = 0;         // bytes transferred; 0 until it is completed
    std::int32_t status = inProgress; // 0 or a negative errno once it is completed
    bool refused = false;             // its submission failed with the status
    bool redacted = false;            // `out` or `in` has a marker in place of the data
    bool fromKernelCopy = false;      // not transferred: made of the descriptors that the kernel keeps

    bool isIn() const { return (endpoint & directionIn) != 0; }
    // When it was first seen. One that was submitted before the capture began has only its completion.
    Time firstSeen() const { return submitted.value_or(completed.value_or(Time{})); }
    std::optional<Time> duration() const {
        return submitted && completed ? std::optional(*completed - *submitted) : std::nullopt;
    }
};

// What the recorder noted besides transfers.
enum class EventType {
    start, // of the recording
    end,   // of the recording
    came,  // a device, as the program was told
    left,
    opened,
    closed,
    claimed,
    released,
    driverDetached,
    driverAttached,
    configurationSet,
    interfaceSet,
    reset,
    haltCleared,
    endpointReset,
    discarded,    // the program took a transfer back
    call,         // of a function of the library
    lost,         // the recorder could not note something
    limitReached, // the recording stopped at its largest size
    other,
};

struct Event {
    EventType type = EventType::other;
    Time time{};
    std::size_t at = 0;                // position
    std::optional<std::size_t> device; // index
    std::optional<std::int64_t>
        result; // 0 or more, or a negative errno; of a call, what the function returned
    std::int64_t process = 0;
    std::int64_t thread = 0;
    // Of calls. One that did not return has no result.
    std::string function;
    std::string arguments;
    std::optional<Time> returned;
    std::size_t returnedAt = 0;
    // All members as they were recorded, such as "interface", "endpoint", "count".
    Json details;
};

struct Capture {
    std::string path;
    bool isRecording = false; // by gvusb
    std::size_t packets = 0;
    std::vector<Device> devices;     // in the order in which they were seen
    std::vector<Transfer> transfers; // in the order of their submission
    std::vector<Event> events;
    std::vector<std::string> notes; // what is missing or odd, each a sentence without its period
};

// "-" reads standard input. Throws CaptureError.
Capture readCapture(const std::filesystem::path& path);
Capture readCapture(std::span<const std::uint8_t> file, const std::string& name);

// The devices with a vendor ID. Throws CaptureError if there is none.
std::vector<std::size_t> requireReaders(const Capture& capture, std::uint16_t vendorId);

// "came", "open failed" and so on; as the member "type" of a remark.
EventType eventType(std::string_view name);
std::string_view nameOf(EventType type);

// The text of a string descriptor, in UTF-8. What is no text is replaced.
std::string stringOf(const Bytes& descriptor);

} // namespace capture
