// The description of a virtual reader: its descriptors, its speed, its place on the bus and its replies.
//
// In text it is one line of KEY=VALUE pairs separated by commas; `\,` is a comma inside a value:
//   id=1A2B3C,name=Desk reader,product=1,endpoints=bulk,speed=high
// "logic" is the last pair: its value is the rest of the line as it is, with commas and backslashes.
// A file has one description per line; blank lines and lines that begin with '#' are skipped.
// Plain values; any thread may use them.
#pragma once

#include "base/reader_facts.h"
#include "model/reply_rule.h"
#include "model/text.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace emulator {

enum class Speed { low, full, high };

// What ends a frame to the reader on a bulk endpoint: each transfer, or only a packet shorter than the endpoint's.
enum class FrameEnd { transfer, shortPacket };

// As in the two low bits of bmAttributes.
enum class TransferType : std::uint8_t { control = 0, isochronous = 1, bulk = 2, interrupt = 3 };

struct Endpoint {
    std::uint8_t address = 0; // with the direction bit
    TransferType type = TransferType::bulk;
    std::uint16_t packetSize = 0; // 0: the default of the speed

    bool in() const { return (address & 0x80) != 0; }
};

// The keys of ReaderDescription::strings by which a reader identifies itself.
constexpr auto deviceIdString = static_cast<std::uint8_t>(StringIndex::deviceId);
constexpr auto familyNameString = static_cast<std::uint8_t>(StringIndex::familyName);
constexpr auto deviceNameString = static_cast<std::uint8_t>(StringIndex::deviceName);
constexpr auto interfaceTypeString = static_cast<std::uint8_t>(StringIndex::interfaceType);
constexpr auto typeNumberString = static_cast<std::uint8_t>(StringIndex::typeNumber);

struct ReaderDescription {
    std::uint16_t vendor = GVUSB_VENDOR_ID;
    std::uint16_t product = lowestReaderProduct;
    std::uint16_t release = 0x0100;
    Speed speed = Speed::full;
    std::uint8_t bus = 1;
    std::optional<std::uint8_t> address; // none: the next free one, another after replugging
    std::vector<std::uint8_t>
        addresses;     // without `address`: those of the first times that it is plugged in, if free
    std::string place; // its name in /sys, such as "1-2.3"; "": the bus and its number
    std::map<std::uint8_t, std::string> strings = {
        {deviceIdString, "1A2B3C"},
        {familyNameString, "Virtual"},
        {deviceNameString, "Virtual Reader"},
        {interfaceTypeString, "TESK RCI2"},
        {typeNumberString, "100"},
    };
    std::vector<std::uint8_t> configurations = {1}; // bConfigurationValue, in descriptor order
    std::uint8_t interfaces = 1;
    std::uint8_t firstInterface = 0;
    std::vector<Endpoint> endpoints = {{.address = 0x81}, {.address = 0x02}}; // of the first interface
    std::string kernelDriver; // bound to the first interface by plugging; "": none
    ReplyRule reply;          // by default none, if there is a logic
    FrameEnd frames = FrameEnd::transfer;
    bool plugged = true;
    bool hub = false;     // answers the requests of a root hub
    std::string logic;    // the command that plays the reader; "": the reply rule alone
    std::size_t copy = 1; // which of the readers of its line it is

    // What programs read as the device's descriptors and those of its configurations, byte for byte, in the
    // place of what all of the above makes them. The reader itself stays as described above.
    std::optional<Bytes> descriptors;
};

// The readers that a line describes: one, or with "copies" several with consecutive device IDs. Throws
// TextError.
std::vector<ReaderDescription> parseReaders(std::string_view line);

// The readers that a file describes. Throws TextError with file and line.
std::vector<ReaderDescription> readReaders(const std::filesystem::path& file);

// A reader with bulk endpoints and a reader without.
std::vector<ReaderDescription> defaultReaders();

// Every key with its meaning, for the help.
std::string describeKeys();

} // namespace emulator
