// The description of a device on the fake bus: what its descriptors say and how it answers by itself.
//
// Plain values without any locking; fake_libusb::plug() copies the description.
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
    // bInterfaceNumber is the position in FakeConfiguration::interfaces unless given here.
    std::vector<FakeAltSetting> altSettings = {{}};
    std::optional<std::uint8_t> number = std::nullopt;
};

// A list of libusb's description of a configuration.
enum class FakeList { interfaces, altSettings, endpoints };

struct FakeConfiguration {
    std::uint8_t value = 1; // bConfigurationValue
    std::vector<FakeInterface> interfaces = {FakeInterface{}};

    // Such lists are null, and their counts are as if they were there. That is what libusb leaves of the
    // endpoints of a configuration that ends inside the first of them.
    std::optional<FakeList> nullList = std::nullopt;
};

// What a string descriptor holds, or the libusb code that reading it returns. The bytes are handed over as
// they are (real libusb would turn those above 0x7F into '?' and never has more than 126), cut to the
// caller's buffer less one and zero-terminated.
using FakeString = std::variant<std::string, int>;

struct FakeReader {
    std::uint16_t vendor = GVUSB_VENDOR_ID;
    std::uint16_t product = 1;
    std::uint8_t bus = 1;
    std::uint8_t address = 0; // 0: one more than the highest address plugged since reset()

    // A string that is not in the map answers LIBUSB_ERROR_PIPE, as a stalled request does.
    std::map<std::uint8_t, FakeString> strings = {
        {1, "1A2B3C"}, {3, "DESKTOP"}, {5, "READER ONE"}, {6, "TESK RCI2"}, {10, "17"}};

    // In descriptor order; the first one is active after plugging. libusb_set_configuration with a value that
    // is not here answers LIBUSB_ERROR_NOT_FOUND.
    std::vector<FakeConfiguration> configurations = {FakeConfiguration{}};

    // bNumConfigurations of the device descriptor, when it shall differ from configurations.size().
    std::optional<std::uint8_t> reportedConfigurations = std::nullopt;

    bool kernelDriver = false;     // a kernel driver holds interface 0 until it is detached
    bool claimedElsewhere = false; // another process holds interface 0: claiming answers LIBUSB_ERROR_BUSY
};

// A reader whose interface 0 has the bulk endpoints 0x81 (IN) and 0x02 (OUT).
inline FakeReader bulkReader(std::string deviceId = "1A2B3C") {
    FakeReader reader;
    reader.strings[1] = std::move(deviceId);
    reader.configurations[0].interfaces[0].altSettings = {{FakeEndpoint{0x81}, FakeEndpoint{0x02}}};
    return reader;
}

// A reader without endpoints of its own, served by vendor control transfers.
inline FakeReader controlReader(std::string deviceId = "4D5E6F") {
    FakeReader reader;
    reader.product = 2;
    reader.strings[1] = std::move(deviceId);
    return reader;
}

// Something on the bus that is not one of the maker's readers.
inline FakeReader foreignDevice() {
    FakeReader device = bulkReader();
    device.vendor = GVUSB_VENDOR_ID ^ 0x0001;
    return device;
}

} // namespace fake_libusb
