// The bytes of a reader's USB descriptors.
//
// Any thread may call these.
#pragma once

#include "model/description.h"

namespace emulator {

// Descriptor types in GET_DESCRIPTOR.
constexpr std::uint8_t deviceType = 1;
constexpr std::uint8_t configurationType = 2;
constexpr std::uint8_t stringType = 3;

Bytes deviceDescriptor(const ReaderDescription& reader);

// The configuration descriptor followed by its interfaces and endpoints, as GET_DESCRIPTOR returns them.
// `index` counts from 0.
Bytes configurationDescriptor(const ReaderDescription& reader, std::size_t index);

// The bytes of the kernel's file "descriptors" in sysfs: the device descriptor followed by each configuration, or the bytes that
// the description gives instead.
Bytes allDescriptors(const ReaderDescription& reader);

// What GET_DESCRIPTOR returns of given bytes: the device descriptor, or everything from the start of a configuration,
// which follows from the total lengths of those before it.
std::optional<Bytes> givenDescriptor(const Bytes& given, std::uint8_t type, std::uint8_t index);

// The string descriptor of a UTF-8 text. Bytes that are not UTF-8 are taken as Latin-1.
Bytes stringDescriptor(std::string_view text);

// String descriptor 0: US English.
Bytes languageDescriptor();

// The endpoint's packet size, described or by default of the speed.
std::uint16_t packetSize(const ReaderDescription& reader, const Endpoint& endpoint);

} // namespace emulator
