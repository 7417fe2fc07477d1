// The readers' string descriptors: which index says what, and reading one.
#pragma once

#include <cstdint>

#include <libusb.h>

enum class StringIndex : std::uint8_t {
    deviceId = 1, // in hexadecimal
    familyName = 3,
    deviceName = 5,
    interfaceType = 6,
    typeNumber = 10
};

using DescriptorText = char[256]; // a descriptor's text is never longer, its terminating zero included

// Returns libusb's result: the length or a negative code, after which text is not changed or incomplete.
inline int readString(libusb_device_handle* handle, StringIndex index, char* text) {
    return libusb_get_string_descriptor_ascii(handle, static_cast<std::uint8_t>(index),
                                              reinterpret_cast<unsigned char*>(text), sizeof(DescriptorText));
}
