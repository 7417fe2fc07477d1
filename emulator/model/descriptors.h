// The USB descriptors of a described reader, byte by byte.
//
// Plain functions on plain values; any thread may call them.
#pragma once

#include "model/description.h"

namespace emulator {

// The types of descriptors, as GET_DESCRIPTOR names them.
constexpr std::uint8_t deviceType = 1;
constexpr std::uint8_t configurationType = 2;
constexpr std::uint8_t stringType = 3;

Bytes deviceDescriptor(const ReaderDescription& reader);

// The configuration with all that belongs to it, as one GET_DESCRIPTOR returns it. `index` counts from 0.
Bytes configurationDescriptor(const ReaderDescription& reader, std::size_t index);

// What the kernel shows as the device's "descriptors" file: the device, then each configuration, or what the
// description gives in their place.
Bytes allDescriptors(const ReaderDescription& reader);

// What GET_DESCRIPTOR returns of these given bytes: the device's descriptor, or all from the configuration on
// that begins where the total lengths of those before it say.
std::optional<Bytes> givenDescriptor(const Bytes& given, std::uint8_t type, std::uint8_t index);

// A string descriptor with the UTF-16 form of a UTF-8 text. What is not UTF-8 is taken byte by byte as
// Latin-1.
Bytes stringDescriptor(std::string_view text);

// String descriptor 0: US English.
Bytes languageDescriptor();

// The endpoint's packet size, also where its description leaves it to the speed.
std::uint16_t packetSize(const ReaderDescription& reader, const Endpoint& endpoint);

} // namespace emulator
