// The USB descriptors of a described reader, byte by byte.
//
// Plain functions on plain values; any thread may call them.

#ifndef GVUSB_EMULATOR_DESCRIPTORS_H
#define GVUSB_EMULATOR_DESCRIPTORS_H

#include "reader_description.h"

namespace emulator {

Bytes deviceDescriptor(const ReaderDescription& reader);

// The configuration with all that belongs to it, as one GET_DESCRIPTOR returns it. `index` counts from 0.
Bytes configurationDescriptor(const ReaderDescription& reader, std::size_t index);

// What the kernel shows as the device's "descriptors" file: the device, then each configuration.
Bytes allDescriptors(const ReaderDescription& reader);

// A string descriptor with the UTF-16 form of a UTF-8 text. What is not UTF-8 is taken byte by byte as
// Latin-1.
Bytes stringDescriptor(std::string_view text);

// String descriptor 0: US English.
Bytes languageDescriptor();

// The endpoint's packet size, also where its description leaves it to the speed.
std::uint16_t packetSize(const ReaderDescription& reader, const Endpoint& endpoint);

} // namespace emulator

#endif
