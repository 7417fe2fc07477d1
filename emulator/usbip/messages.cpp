#include "usbip/messages.h"

#include "model/descriptors.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include <arpa/inet.h>

namespace emulator::usbip {

namespace {

template <typename Record>
Record read(Input bytes) {
    Record record;
    std::memcpy(&record, bytes.data(), sizeof record);
    return record;
}

template <typename Record>
void append(Bytes& bytes, const Record& record) {
    const auto* const begin = reinterpret_cast<const std::uint8_t*>(&record);
    bytes.insert(bytes.end(), begin, begin + sizeof record);
}

std::uint16_t readLittle16(const std::uint8_t* bytes) {
    return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}

// Leaves at least one zero at the end.
template <std::size_t size>
void put(char (&field)[size], std::string_view text) {
    text.copy(field, size - 1);
}

// The kernel counts low, full and high speed from 1.
std::uint32_t speedNumber(Speed speed) {
    return static_cast<std::uint32_t>(speed) + 1;
}

std::uint8_t interfaceCount(const Device& device, const ReaderDescription& reader) {
    return device.configuration == 0 ? std::uint8_t{0} : reader.interfaces;
}

usbip_header replyHeader(usbip_command command, std::uint32_t sequence) {
    usbip_header header{};
    header.command = htonl(command);
    header.sequence = htonl(sequence);
    return header;
}

} // namespace

OperationHeader readOperation(Input bytes) {
    const auto operation = read<usbip_operation>(bytes);
    return {.version = ntohs(operation.version), .code = ntohs(operation.code)};
}

void appendOperation(Bytes& bytes, usbip_operation_code code, usbip_operation_status status) {
    append(bytes, usbip_operation{.version = htons(usbip_protocol_version),
                                  .code = htons(static_cast<std::uint16_t>(code)),
                                  .status = htonl(status)});
}

std::string readBusId(Input bytes) {
    const Input field = bytes.first(usbip_bus_id_size);
    return {field.begin(), std::ranges::find(field, 0)};
}

void appendCount(Bytes& bytes, std::size_t count) {
    append(bytes, htonl(static_cast<std::uint32_t>(count)));
}

void appendDevice(Bytes& bytes, const Device& device, const ReaderDescription& reader) {
    usbip_device shown{};
    put(shown.path, "/sys/devices/gvusb/usb" + std::to_string(device.bus) + "/" + device.busId);
    put(shown.bus_id, device.busId);
    shown.bus = htonl(device.bus);
    shown.number = htonl(device.number);
    shown.speed = htonl(speedNumber(reader.speed));
    shown.vendor = htons(reader.vendor);
    shown.product = htons(reader.product);
    shown.release = htons(reader.release);
    const Bytes descriptor = deviceDescriptor(reader);
    shown.device_class = descriptor[4];
    shown.device_subclass = descriptor[5];
    shown.device_protocol = descriptor[6];
    shown.configuration = device.configuration;
    shown.configurations = static_cast<std::uint8_t>(reader.configurations.size());
    shown.interfaces = interfaceCount(device, reader);
    append(bytes, shown);
}

void appendInterfaces(Bytes& bytes, const Device& device, const ReaderDescription& reader) {
    constexpr std::uint8_t interfaceType = 4;
    if (interfaceCount(device, reader) == 0) {
        return;
    }
    const auto active = std::ranges::find(reader.configurations, device.configuration);
    const Bytes configuration = configurationDescriptor(
        reader, static_cast<std::size_t>(std::distance(reader.configurations.begin(), active)));
    for (std::size_t at = 0; at < configuration.size(); at += configuration[at]) {
        if (configuration[at + 1] == interfaceType) {
            append(bytes, usbip_interface{.interface_class = configuration[at + 5],
                                          .interface_subclass = configuration[at + 6],
                                          .interface_protocol = configuration[at + 7],
                                          .padding = 0});
        }
    }
}

UrbHeader readUrbHeader(Input bytes) {
    const auto header = read<usbip_header>(bytes);
    return {.command = ntohl(header.command),
            .sequence = ntohl(header.sequence),
            .device = ntohl(header.device),
            .direction = ntohl(header.direction),
            .endpoint = ntohl(header.endpoint)};
}

Submit readSubmit(Input bytes) {
    const auto submit = read<usbip_submit>(bytes);
    return {.flags = ntohl(submit.flags),
            .length = static_cast<std::int32_t>(ntohl(submit.length)),
            .packets = static_cast<std::int32_t>(ntohl(submit.packets)),
            .setup = {.requestType = submit.setup[0],
                      .request = submit.setup[1],
                      .value = readLittle16(submit.setup + 2),
                      .index = readLittle16(submit.setup + 4),
                      .length = readLittle16(submit.setup + 6)}};
}

std::uint32_t readUnlinked(Input bytes) {
    return ntohl(read<usbip_unlink>(bytes).unlinked);
}

void appendSubmitReply(Bytes& bytes, std::uint32_t sequence, int status, std::size_t actual, Input data) {
    usbip_submit_reply reply{};
    reply.header = replyHeader(usbip_reply_submit, sequence);
    reply.status = htonl(static_cast<std::uint32_t>(status));
    reply.actual_length = htonl(static_cast<std::uint32_t>(actual));
    append(bytes, reply);
    bytes.insert(bytes.end(), data.begin(), data.end());
}

void appendUnlinkReply(Bytes& bytes, std::uint32_t sequence, int status) {
    usbip_unlink_reply reply{};
    reply.header = replyHeader(usbip_reply_unlink, sequence);
    reply.status = htonl(static_cast<std::uint32_t>(status));
    append(bytes, reply);
}

} // namespace emulator::usbip
