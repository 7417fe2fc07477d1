// The client side of USB/IP: composes requests and parses replies. Of the server's code, it uses only the
// structures of usbip/wire.h, so that mistakes do not cancel out; messages_test.cpp checks those structures
// byte by byte.
#pragma once

#include "model/text.h"
#include "usbip/wire.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <arpa/inet.h>

namespace usbip_client {

using emulator::Bytes;

inline Bytes join(std::initializer_list<Bytes> pieces) {
    Bytes all;
    for (const Bytes& piece : pieces) {
        all.insert(all.end(), piece.begin(), piece.end());
    }
    return all;
}

template <typename Record>
Bytes bytesOf(const Record& record) {
    Bytes bytes(sizeof record);
    std::memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

// The record at the start of `bytes`, which has its size at least.
template <typename Record>
Record recordOf(std::span<const std::uint8_t> bytes) {
    Record record;
    std::memcpy(&record, bytes.data(), sizeof record);
    return record;
}

// ---- operations
inline Bytes operation(usbip_operation_code code) {
    usbip_operation request{};
    request.version = htons(usbip_protocol_version);
    request.code = htons(static_cast<std::uint16_t>(code));
    return bytesOf(request);
}

inline Bytes listRequest() {
    return operation(usbip_request_list);
}

inline Bytes importRequest(std::string_view busId) {
    Bytes name(busId.begin(), busId.end());
    name.resize(usbip_bus_id_size);
    return join({operation(usbip_request_import), name});
}

constexpr std::size_t importRequestSize = sizeof(usbip_operation) + usbip_bus_id_size;
constexpr std::size_t importReplySize = sizeof(usbip_operation) + sizeof(usbip_device);

inline std::uint32_t statusOf(std::span<const std::uint8_t> reply) {
    return ntohl(recordOf<usbip_operation>(reply).status);
}

inline std::uint32_t listedDevices(std::span<const std::uint8_t> reply) {
    return ntohl(recordOf<std::uint32_t>(reply.subspan(sizeof(usbip_operation))));
}

// ---- URBs
constexpr std::size_t headerSize = sizeof(usbip_submit);
constexpr std::uint32_t firstReader = 0x00010001; // bus 1, device 1
enum Direction : std::uint32_t { out = usbip_out, in = usbip_in };

inline usbip_header header(std::uint32_t command, std::uint32_t sequence,
                           std::uint32_t device = firstReader) {
    usbip_header header{};
    header.command = htonl(command);
    header.sequence = htonl(sequence);
    header.device = htonl(device);
    return header;
}

struct SubmitRequest {
    std::uint32_t sequence = 1;
    Direction direction = out;
    std::uint32_t endpoint = 0;
    std::uint32_t length = 0;
    Bytes setup = Bytes(8);
    Bytes data = {};
    std::uint32_t device = firstReader;
    std::uint32_t flags = 0;
    std::uint32_t packets = 0;
};

inline Bytes submit(const SubmitRequest& s) {
    usbip_submit request{};
    request.header = header(usbip_command_submit, s.sequence, s.device);
    request.header.direction = htonl(s.direction);
    request.header.endpoint = htonl(s.endpoint);
    request.flags = htonl(s.flags);
    request.length = htonl(s.length);
    request.packets = htonl(s.packets);
    std::ranges::copy(s.setup, request.setup);
    return join({bytesOf(request), s.data});
}

inline Bytes sendFrame(std::uint32_t sequence, const Bytes& data) {
    return submit({.sequence = sequence,
                   .endpoint = 2,
                   .length = static_cast<std::uint32_t>(data.size()),
                   .data = data});
}

inline Bytes fetchFrame(std::uint32_t sequence, std::uint32_t length = 64) {
    return submit({.sequence = sequence, .direction = in, .endpoint = 1, .length = length});
}

inline Bytes control(std::uint32_t sequence, Bytes setup) {
    const auto length = static_cast<std::uint32_t>(setup[6] | setup[7] << 8);
    const Direction direction = (setup[0] & 0x80) != 0 ? in : out;
    return submit(
        {.sequence = sequence, .direction = direction, .length = length, .setup = std::move(setup)});
}

inline Bytes unlink(std::uint32_t sequence, std::uint32_t unlinked, std::uint32_t device = firstReader) {
    usbip_unlink request{};
    request.header = header(usbip_command_unlink, sequence, device);
    request.unlinked = htonl(unlinked);
    return bytesOf(request);
}

// A message that has only a header, with any command.
inline Bytes bareMessage(std::uint32_t command, std::uint32_t sequence) {
    usbip_unlink message{};
    message.header = header(command, sequence);
    return bytesOf(message);
}

// Replies in words, separated by "; ". A reply to a submit is "submitted", sequence number, status and the
// data from the device in hexadecimal, such as "submitted 5 0 aabb", or the number of bytes sent to it,
// "submitted 5 0 +2". A reply to an unlink is "unlinked 5 -104".
class Replies {
public:
    // `fetched` lists the sequence numbers of submits in direction "in".
    explicit Replies(std::span<const std::uint8_t> bytes, std::initializer_list<std::uint32_t> fetched = {})
        : m_fetched(fetched) {
        while (bytes.size() >= headerSize) {
            bytes = bytes.subspan(take(bytes));
        }
        if (!bytes.empty()) {
            add("and " + std::to_string(bytes.size()) + " bytes");
        }
    }

    const std::string& text() const { return m_text; }

private:
    void add(const std::string& reply) { m_text += (m_text.empty() ? "" : "; ") + reply; }

    std::size_t take(std::span<const std::uint8_t> bytes) {
        const auto reply = recordOf<usbip_submit_reply>(bytes);
        const std::uint32_t command = ntohl(reply.header.command);
        const std::uint32_t sequence = ntohl(reply.header.sequence);
        const auto status = static_cast<std::int32_t>(ntohl(reply.status));
        const std::string named = std::to_string(sequence) + " " + std::to_string(status);
        if (command != usbip_reply_submit) {
            add((command == usbip_reply_unlink ? "unlinked " : "unknown ") + named);
            return headerSize;
        }
        const std::size_t actual = ntohl(reply.actual_length);
        if (std::ranges::find(m_fetched, sequence) == m_fetched.end()) {
            add("submitted " + named + " +" + std::to_string(actual));
            return headerSize;
        }
        const std::size_t present = std::min(actual, bytes.size() - headerSize);
        add("submitted " + named + " " + emulator::hexText(bytes.subspan(headerSize, present)));
        return headerSize + present;
    }

    std::vector<std::uint32_t> m_fetched;
    std::string m_text;
};

} // namespace usbip_client
