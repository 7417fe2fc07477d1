#include "model/descriptors.h"

#include <algorithm>
#include <iterator>

namespace emulator {

namespace {

constexpr std::uint8_t deviceSize = 18;
constexpr std::uint8_t interfaceType = 4;
constexpr std::uint8_t endpointType = 5;
constexpr std::uint8_t vendorClass = 0xFF;
constexpr std::size_t longestDescriptor = 255;

void append16(Bytes& bytes, std::uint16_t value) {
    bytes.push_back(static_cast<std::uint8_t>(value & 0xFF));
    bytes.push_back(static_cast<std::uint8_t>(value >> 8));
}

std::uint8_t indexIfPresent(const ReaderDescription& reader, std::uint8_t index) {
    return reader.strings.contains(index) ? index : std::uint8_t{0};
}

// Remove one code point from `text` and return it. A byte that begins no valid sequence stands for itself.
char32_t takeCodePoint(std::string_view& text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    std::size_t length = 1;
    char32_t value = byte(0);
    if ((byte(0) & 0xE0) == 0xC0) {
        length = 2;
        value = byte(0) & 0x1F;
    } else if ((byte(0) & 0xF0) == 0xE0) {
        length = 3;
        value = byte(0) & 0x0F;
    } else if ((byte(0) & 0xF8) == 0xF0) {
        length = 4;
        value = byte(0) & 0x07;
    }
    bool valid = length <= text.size();
    for (std::size_t i = 1; valid && i < length; ++i) {
        valid = (byte(i) & 0xC0) == 0x80;
        value = (value << 6) | (byte(i) & 0x3F);
    }
    if (!valid || value > 0x10FFFF) {
        length = 1;
        value = byte(0);
    }
    text.remove_prefix(length);
    return value;
}

} // namespace

std::uint16_t packetSize(const ReaderDescription& reader, const Endpoint& endpoint) {
    if (endpoint.packetSize != 0) {
        return endpoint.packetSize;
    }
    switch (reader.speed) {
    case Speed::low:
        return 8;
    case Speed::full:
        return 64;
    case Speed::high:
        break;
    }
    return endpoint.type == TransferType::bulk ? 512 : 64;
}

Bytes deviceDescriptor(const ReaderDescription& reader) {
    Bytes bytes = {deviceSize, deviceType};
    append16(bytes, reader.speed == Speed::high ? 0x0200 : 0x0110);
    bytes.insert(bytes.end(), {0, 0, 0}); // class, subclass and protocol are the interface's
    bytes.push_back(reader.speed == Speed::low ? 8 : 64);
    append16(bytes, reader.vendor);
    append16(bytes, reader.product);
    append16(bytes, reader.release);
    bytes.push_back(indexIfPresent(reader, familyNameString));
    bytes.push_back(indexIfPresent(reader, deviceNameString));
    bytes.push_back(indexIfPresent(reader, deviceIdString));
    bytes.push_back(static_cast<std::uint8_t>(reader.configurations.size()));
    return bytes;
}

Bytes configurationDescriptor(const ReaderDescription& reader, std::size_t index) {
    constexpr std::uint8_t busPowered = 0x80;
    constexpr std::uint8_t current = 50; // in units of 2 mA
    Bytes bytes = {9, configurationType, 0,      0, reader.interfaces, reader.configurations.at(index),
                   0, busPowered,        current};
    for (std::uint8_t i = 0; i < reader.interfaces; ++i) {
        const auto endpoints = static_cast<std::uint8_t>(i == 0 ? reader.endpoints.size() : 0);
        const auto interfaceNumber = static_cast<std::uint8_t>(reader.firstInterface + i);
        bytes.insert(bytes.end(), {9, interfaceType, interfaceNumber, 0, endpoints, vendorClass, 0, 0,
                                   indexIfPresent(reader, interfaceTypeString)});
        if (i != 0) {
            continue;
        }
        for (const Endpoint& endpoint : reader.endpoints) {
            const std::uint8_t interval = endpoint.type == TransferType::bulk ? 0 : 10;
            bytes.insert(bytes.end(),
                         {7, endpointType, endpoint.address, static_cast<std::uint8_t>(endpoint.type)});
            append16(bytes, packetSize(reader, endpoint));
            bytes.push_back(interval);
        }
    }
    bytes[2] = static_cast<std::uint8_t>(bytes.size() & 0xFF);
    bytes[3] = static_cast<std::uint8_t>(bytes.size() >> 8);
    return bytes;
}

Bytes allDescriptors(const ReaderDescription& reader) {
    if (reader.descriptors)
        return *reader.descriptors;
    Bytes bytes = deviceDescriptor(reader);
    for (std::size_t i = 0; i < reader.configurations.size(); ++i) {
        std::ranges::copy(configurationDescriptor(reader, i), std::back_inserter(bytes));
    }
    return bytes;
}

std::optional<Bytes> givenDescriptor(const Bytes& given, std::uint8_t type, std::uint8_t index) {
    const std::size_t deviceEnd = std::min<std::size_t>(deviceSize, given.size());
    if (type == deviceType)
        return index == 0 ? std::optional(Bytes(given.data(), given.data() + deviceEnd)) : std::nullopt;
    std::size_t begin = deviceEnd;
    for (; index > 0 && begin + 4 <= given.size(); --index)
        begin += given[begin + 2] + std::size_t{256} * given[begin + 3];
    if (index > 0 || begin >= given.size())
        return std::nullopt;
    return Bytes(given.data() + begin, given.data() + given.size());
}

Bytes stringDescriptor(std::string_view text) {
    Bytes bytes = {0, stringType};
    while (!text.empty()) {
        const char32_t codePoint = takeCodePoint(text);
        if (codePoint < 0x10000) {
            append16(bytes, static_cast<std::uint16_t>(codePoint));
        } else {
            append16(bytes, static_cast<std::uint16_t>(0xD800 + ((codePoint - 0x10000) >> 10)));
            append16(bytes, static_cast<std::uint16_t>(0xDC00 + ((codePoint - 0x10000) & 0x3FF)));
        }
    }
    if (bytes.size() > longestDescriptor) {
        bytes.resize(longestDescriptor - 1);
    }
    bytes[0] = static_cast<std::uint8_t>(bytes.size());
    return bytes;
}

Bytes languageDescriptor() {
    return {4, stringType, 0x09, 0x04};
}

} // namespace emulator
