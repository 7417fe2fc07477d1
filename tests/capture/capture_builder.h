// Builds capture files for tests.
#pragma once

#include "capture/capture.h"

#include <cstring>
#include <string>

namespace capture {

inline constexpr SetupPacket readDeviceDescriptor = {0x80, 6, 0, 1, 0, 0, 18, 0};
inline const Bytes readerDescriptor = {18, 1, 0, 2, 0, 0, 0, 64, 0x09, 0x12, 0x01, 0x00, 0x00, 1, 1, 2, 3, 1};

// A recording: packets of one device, one microsecond after each other.
class Recording {
public:
    Recording() { appendHeader(file, "gvusb test"); }

    Recording& submit(std::uint64_t id, TransferType type, std::uint8_t endpoint, const Bytes& data,
                      std::uint32_t length, std::optional<SetupPacket> setup = {},
                      std::string_view comment = {}) {
        return add({.id = id,
                    .kind = PacketKind::submission,
                    .type = type,
                    .endpoint = endpoint,
                    .setup = setup,
                    .length = length,
                    .data = data},
                   comment);
    }

    Recording& complete(std::uint64_t id, TransferType type, std::uint8_t endpoint, std::int32_t status,
                        const Bytes& data, std::uint32_t length, std::string_view comment = {}) {
        return add({.id = id,
                    .kind = PacketKind::completion,
                    .type = type,
                    .endpoint = endpoint,
                    .setup = {},
                    .status = status,
                    .length = length,
                    .data = data},
                   comment);
    }

    Recording& refuse(std::uint64_t id, TransferType type, std::uint8_t endpoint, std::int32_t status) {
        return add({.id = id,
                    .kind = PacketKind::submissionError,
                    .type = type,
                    .endpoint = endpoint,
                    .setup = {},
                    .status = status,
                    .data = {}},
                   {});
    }

    Recording& remark(const Json& value) {
        appendRemark(file, ++time, value);
        return *this;
    }

    // As an enumeration reads it.
    Recording& descriptor(const Bytes& bytes, std::string_view comment = {}) {
        const auto size = static_cast<std::uint32_t>(bytes.size());
        submit(1000, TransferType::control, 0x80, {}, size, readDeviceDescriptor, comment);
        return complete(1000, TransferType::control, 0x80, 0, bytes, size, comment);
    }

    Capture read() const { return readCapture(file, "test"); }

    Bytes file;
    Time time{1'700'000'000'000'000'000};
    std::uint8_t address = 5;

private:
    Recording& add(Packet packet, std::string_view comment) {
        packet.bus = 1;
        packet.address = address;
        packet.time = time += std::chrono::microseconds(1);
        appendPacket(file, packet, comment);
        return *this;
    }
};

} // namespace capture
