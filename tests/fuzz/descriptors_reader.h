// Make a reader from the input, with any strings and configurations.
#pragma once

#include "fake_reader.h"
#include "input.h"

#include <array>
#include <cstdint>
#include <string>

#include <libusb.h>

namespace fuzz {

inline constexpr std::array<std::uint8_t, 5> stringIndexes = {1, 3, 5, 6, 10};

inline constexpr std::array<int, 8> usbCodes = {
    LIBUSB_ERROR_IO,       LIBUSB_ERROR_TIMEOUT, LIBUSB_ERROR_PIPE,      LIBUSB_ERROR_NO_DEVICE,
    LIBUSB_ERROR_OVERFLOW, LIBUSB_ERROR_BUSY,    LIBUSB_ERROR_NOT_FOUND, LIBUSB_ERROR_NO_MEM};

// A text, a text repeated so that it can be longer than any buffer, or the code of a failed read.
inline fake_libusb::FakeString takeString(Input& input) {
    const std::size_t kind = input.below(8);
    if (kind == 7) {
        return input.oneOf(usbCodes);
    }
    std::string text(input.countedBytes());
    if (kind == 6) {
        text += text;
    }
    return text;
}

inline fake_libusb::FakeAltSetting takeAltSetting(Input& input) {
    fake_libusb::FakeAltSetting setting(input.below(6));
    for (fake_libusb::FakeEndpoint& endpoint : setting) {
        endpoint.address = input.byte();
        endpoint.attributes = input.byte();
    }
    return setting;
}

inline fake_libusb::FakeInterface takeInterface(Input& input) {
    fake_libusb::FakeInterface interface;
    const std::uint8_t number = input.byte();
    if (number >= 4) {
        interface.number = static_cast<std::uint8_t>(number - 4);
    }
    interface.altSettings.resize(input.below(4));
    for (fake_libusb::FakeAltSetting& setting : interface.altSettings) {
        setting = takeAltSetting(input);
    }
    return interface;
}

inline fake_libusb::FakeConfiguration takeConfiguration(Input& input) {
    fake_libusb::FakeConfiguration configuration;
    configuration.value = input.byte();
    configuration.interfaces.resize(input.below(4));
    for (fake_libusb::FakeInterface& interface : configuration.interfaces) {
        interface = takeInterface(input);
    }
    return configuration;
}

// The first byte has flags for the differences from an ordinary reader.
inline fake_libusb::FakeReader takeReader(Input& input) {
    const std::uint8_t flags = input.byte();
    const auto has = [&](unsigned bit) { return (flags >> bit & 1) != 0; };
    fake_libusb::FakeReader reader = has(0) ? fake_libusb::controlReader() : fake_libusb::bulkReader();
    if (has(1)) {
        reader.strings[1] = takeString(input);
    }
    if (has(2)) {
        for (const std::uint8_t index : stringIndexes) {
            reader.strings[index] = takeString(input);
        }
    }
    if (has(3)) {
        reader.configurations.resize(input.below(4));
        for (fake_libusb::FakeConfiguration& configuration : reader.configurations) {
            configuration = takeConfiguration(input);
        }
    }
    if (has(4)) {
        reader.reportedConfigurations = input.byte();
    }
    reader.kernelDriver = has(5);
    reader.claimedElsewhere = has(6);
    if (has(7)) {
        reader.product = input.byte();
        reader.vendor = static_cast<std::uint16_t>(reader.vendor ^ (input.byte() >> 7));
    }
    return reader;
}

} // namespace fuzz
