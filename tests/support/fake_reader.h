// The description of a device on the fake bus: its descriptors and its default answers. Plain values;
// fake_libusb::plug() copies the description.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#ifndef GVUSB_VENDOR_ID
#define GVUSB_VENDOR_ID 0x1209
#endif

namespace fake_libusb {

using Bytes = std::vector<std::uint8_t>;

struct FakeEndpoint {
    std::uint8_t address = 0;
    std::uint8_t attributes =
        2; // transfer type in the low two bits: 0 control, 1 isochronous, 2 bulk, 3 interrupt
    std::uint16_t maxPacketSize = 64;
};

using FakeAltSetting = std::vector<FakeEndpoint>;

struct FakeInterface {
    // Overrides bInterfaceNumber, which by default is the position in FakeConfiguration::interfaces.
    std::vector<FakeAltSetting> altSettings = {{}};
    std::optional<std::uint8_t> number = std::nullopt;
};

// A list in libusb's description of a configuration.
enum class FakeList { interfaces, altSettings, endpoints };

struct FakeConfiguration {
    std::uint8_t value = 1; // bConfigurationValue
    std::vector<FakeInterface> interfaces = {FakeInterface{}};

    // Makes such lists null without changing their counts. libusb leaves the endpoints this way if a
    // configuration ends inside the first endpoint descriptor.
    std::optional<FakeList> nullList = std::nullopt;
};

// The content of a string descriptor, or the libusb code that reading it returns. The bytes are returned
// unchanged, truncated to the caller's buffer minus one and zero-terminated. The real libusb replaces bytes
// above 0x7F with '?' and returns at most 126.
using FakeString = std::variant<std::string, int>;

struct FakeReader {
    std::uint16_t vendor = GVUSB_VENDOR_ID;
    std::uint16_t product = 1;
    std::uint8_t bus = 1;
    std::uint8_t address = 0; // 0: one more than the highest address used since reset()

    // A string that is not in the map fails with LIBUSB_ERROR_PIPE, like a stalled request.
    std::map<std::uint8_t, FakeString> strings = {
        {1, "1A2B3C"}, {3, "DESKTOP"}, {5, "READER ONE"}, {6, "TESK RCI2"}, {10, "17"}};

    // In descriptor order; the first one is active after plugging. libusb_set_configuration() with any other
    // value returns LIBUSB_ERROR_NOT_FOUND.
    std::vector<FakeConfiguration> configurations = {FakeConfiguration{}};

    // Overrides bNumConfigurations of the device descriptor, which is configurations.size() by default.
    std::optional<std::uint8_t> reportedConfigurations = std::nullopt;

    bool kernelDriver = false;     // a kernel driver holds interface 0 until it is detached
    bool claimedElsewhere = false; // another process holds interface 0: claiming returns LIBUSB_ERROR_BUSY
};

// A reader whose interface 0 has the bulk endpoints 0x81 (IN) and 0x02 (OUT).
inline FakeReader bulkReader(std::string deviceId = "1A2B3C") {
    FakeReader reader;
    reader.strings[1] = std::move(deviceId);
    reader.configurations[0].interfaces[0].altSettings = {{FakeEndpoint{0x81}, FakeEndpoint{0x02}}};
    return reader;
}

// A reader without bulk endpoints, which uses vendor control transfers.
inline FakeReader controlReader(std::string deviceId = "4D5E6F") {
    FakeReader reader;
    reader.product = 2;
    reader.strings[1] = std::move(deviceId);
    return reader;
}

// A device on the bus that is not a reader.
inline FakeReader foreignDevice() {
    FakeReader device = bulkReader();
    device.vendor = GVUSB_VENDOR_ID ^ 0x0001;
    return device;
}

} // namespace fake_libusb
