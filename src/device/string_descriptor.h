#pragma once

#include "base/reader_facts.h"

#include <cstdint>

#include <libusb.h>

using DescriptorText = char[256]; // enough for the text of every string descriptor

// Read a string descriptor. Return its length or a negative libusb code; text is then unchanged or incomplete.
inline int readString(libusb_device_handle* handle, StringIndex index, char* text) {
    return libusb_get_string_descriptor_ascii(handle, static_cast<std::uint8_t>(index),
                                              reinterpret_cast<unsigned char*>(text), sizeof(DescriptorText));
}
