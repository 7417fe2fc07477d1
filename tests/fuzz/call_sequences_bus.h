// The bus of one program: the devices that it plugged in, and the strings that they are expected to return.
//
// A program uses each name once. An unplugged device stays in the list while the library has a reference to it.
#pragma once

#include "call_sequences_input.h"
#include "fake_libusb.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace call_sequences {

// The device IDs of all readers. Several readers may have the same one.
inline constexpr std::array<unsigned, 5> deviceIds = {0xA1, 0xA2, 0xA3, 0, 0xFFFFFFFF};

struct Device {
    std::string name;
    libusb_device* usbDevice;
    bool plugged;
    bool usable;                            // has the vendor ID and a product ID of a reader
    std::optional<unsigned> id;             // from its string descriptor
    bool opens;                             // opening it succeeds unless libusb fails
    std::set<std::uint8_t> unreadable = {}; // other required strings

    [[nodiscard]] std::optional<unsigned> identity() const { return unreadable.empty() ? id : std::nullopt; }
};

class Bus {
public:
    // Events that a program can cause, each with arguments from the input.
    void plug(Input& input);
    void unplug(Input& input);
    void replug(Input& input) { replug(input, true); }
    void changeString(Input& input);
    void changeClaim(Input& input);
    void queueAnswer(Input& input);
    void failNextCall(Input& input);
    void failNthCall(Input& input);
    void stopFailing();
    void changeDuringCall(Input& input);

    // Whether libusb may fail independently of the state of the bus.
    [[nodiscard]] bool failing() const noexcept { return m_failing; }

    // In the order of the bus, including unplugged devices.
    [[nodiscard]] const std::vector<Device>& devices() const noexcept { return m_devices; }
    [[nodiscard]] const Device* find(const libusb_device* usbDevice) const noexcept;
    [[nodiscard]] std::vector<std::string> names() const;

    // Remove unplugged devices that have no references.
    void forgetGone();

    // Choose a device, null if there is none.
    Device* choose(Input& input);

private:
    void replug(Input& input, bool mayKeepPointer);
    std::string newName();

    std::vector<Device> m_devices;
    int m_lastNumber = 0;
    bool m_failing = false;
};

} // namespace call_sequences
