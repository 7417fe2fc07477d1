#include "usbip/messages.h"

#include "model/descriptors.h"

#include <algorithm>

namespace emulator::usbip {

namespace {

constexpr std::size_t pathSize = 256;

// Where a submit's setup packet stands.
constexpr std::size_t setupOffset = 40;

std::uint16_t read16(Input bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

std::uint32_t read32(Input bytes, std::size_t at) {
    return std::uint32_t{read16(bytes, at)} << 16 | read16(bytes, at + 2);
}

// A setup packet keeps USB's own order.
std::uint16_t readLittle16(Input bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

void append16(Bytes& bytes, std::uint16_t value) {
    bytes.push_back(static_cast<std::uint8_t>(value >> 8));
    bytes.push_back(static_cast<std::uint8_t>(value & 0xFF));
}

void appendText(Bytes& bytes, std::string_view text, std::size_t size) {
    const std::size_t before = bytes.size();
    bytes.insert(bytes.end(), text.begin(),
                 text.begin() + static_cast<std::ptrdiff_t>(std::min(text.size(), size - 1)));
    bytes.resize(before + size);
}

// The kernel's numbers: low, full, high.
std::uint32_t speedNumber(Speed speed) {
    return static_cast<std::uint32_t>(speed) + 1;
}

std::uint8_t interfaceCount(const Device& device, const ReaderDescription& reader) {
    return device.configuration == 0 ? std::uint8_t{0} : reader.interfaces;
}

// The beginning of every reply; device, direction and endpoint are 0 in replies.
void appendReplyHeader(Bytes& bytes, Command command, std::uint32_t sequence, int status) {
    append32(bytes, static_cast<std::uint32_t>(command));
    append32(bytes, sequence);
    bytes.resize(bytes.size() + 12);
    append32(bytes, static_cast<std::uint32_t>(status));
}

} // namespace

OperationHeader readOperation(Input bytes) {
    return {.version = read16(bytes, 0), .code = read16(bytes, 2)};
}

void appendOperation(Bytes& bytes, Operation code, OperationStatus status) {
    append16(bytes, protocolVersion);
    append16(bytes, static_cast<std::uint16_t>(code));
    append32(bytes, static_cast<std::uint32_t>(status));
}

std::string readBusId(Input bytes) {
    const Input field = bytes.first(busIdSize);
    return {field.begin(), std::ranges::find(field, 0)};
}

void appendDevice(Bytes& bytes, const Device& device, const ReaderDescription& reader) {
    const Bytes descriptor = deviceDescriptor(reader);
    appendText(bytes, "/sys/devices/gvusb/usb" + std::to_string(device.bus) + "/" + device.busId, pathSize);
    appendText(bytes, device.busId, busIdSize);
    append32(bytes, device.bus);
    append32(bytes, device.number);
    append32(bytes, speedNumber(reader.speed));
    append16(bytes, reader.vendor);
    append16(bytes, reader.product);
    append16(bytes, reader.release);
    bytes.insert(bytes.end(), descriptor.begin() + 4, descriptor.begin() + 7); // class, subclass, protocol
    bytes.push_back(device.configuration);
    bytes.push_back(static_cast<std::uint8_t>(reader.configurations.size()));
    bytes.push_back(interfaceCount(device, reader));
}

void appendInterfaces(Bytes& bytes, const Device& device, const ReaderDescription& reader) {
    constexpr std::uint8_t interfaceType = 4;
    if (interfaceCount(device, reader) == 0) {
        return;
    }
    const auto present = std::ranges::find(reader.configurations, device.configuration);
    const Bytes configuration = configurationDescriptor(
        reader, static_cast<std::size_t>(std::distance(reader.configurations.begin(), present)));
    for (std::size_t at = 0; at < configuration.size(); at += configuration[at]) {
        if (configuration[at + 1] != interfaceType) {
            continue;
        }
        const auto classes = configuration.begin() + static_cast<std::ptrdiff_t>(at) + 5;
        bytes.insert(bytes.end(), classes, classes + 3);
        bytes.push_back(0); // padding
    }
}

void append32(Bytes& bytes, std::uint32_t value) {
    append16(bytes, static_cast<std::uint16_t>(value >> 16));
    append16(bytes, static_cast<std::uint16_t>(value & 0xFFFF));
}

UrbHeader readUrbHeader(Input bytes) {
    return {.command = read32(bytes, 0),
            .sequence = read32(bytes, 4),
            .device = read32(bytes, 8),
            .direction = read32(bytes, 12),
            .endpoint = read32(bytes, 16)};
}

Submit readSubmit(Input bytes) {
    return {.flags = read32(bytes, 20),
            .length = static_cast<std::int32_t>(read32(bytes, 24)),
            .packets = static_cast<std::int32_t>(read32(bytes, 32)),
            .setup = {.requestType = bytes[setupOffset],
                      .request = bytes[setupOffset + 1],
                      .value = readLittle16(bytes, setupOffset + 2),
                      .index = readLittle16(bytes, setupOffset + 4),
                      .length = readLittle16(bytes, setupOffset + 6)}};
}

std::uint32_t readUnlinked(Input bytes) {
    return read32(bytes, 20);
}

void appendSubmitted(Bytes& bytes, std::uint32_t sequence, int status, std::size_t actual, Input data) {
    appendReplyHeader(bytes, Command::submitted, sequence, status);
    append32(bytes, static_cast<std::uint32_t>(actual));
    bytes.resize(bytes.size() + 20); // what belongs to isochronous transfers, and padding
    bytes.insert(bytes.end(), data.begin(), data.end());
}

void appendUnlinked(Bytes& bytes, std::uint32_t sequence, int status) {
    appendReplyHeader(bytes, Command::unlinked, sequence, status);
    bytes.resize(bytes.size() + 24);
}

} // namespace emulator::usbip
