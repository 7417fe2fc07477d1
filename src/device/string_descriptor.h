// Reading a string descriptor.
#pragma once

#include "base/reader_facts.h"

#include <cstdint>

#include <libusb.h>

using DescriptorText = char[256]; // a descriptor's text is never longer, its terminating zero included

// Returns libusb's result: the length or a negative code, after which text is not changed or incomplete.
inline int readString(libusb_device_handle* handle, StringIndex index, char* text) {
    return libusb_get_string_descriptor_ascii(handle, static_cast<std::uint8_t>(index),
                                              reinterpret_cast<unsigned char*>(text), sizeof(DescriptorText));
}
