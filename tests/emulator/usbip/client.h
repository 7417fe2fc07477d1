// What a USB/IP client sends, and how it takes apart what it gets. Written from the protocol and not with the emulator's
// own functions, whose mistakes would cancel out.
#pragma once

#include "text.h"

#include <algorithm>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace usbip_client {

using emulator::Bytes;

inline Bytes join(std::initializer_list<Bytes> pieces) {
    Bytes all;
    for (const Bytes& piece : pieces) {
        all.insert(all.end(), piece.begin(), piece.end());
    }
    return all;
}

inline Bytes word(std::uint32_t value) {
    return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
            static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

inline std::uint32_t wordAt(std::span<const std::uint8_t> bytes, std::size_t at) {
    return std::uint32_t{bytes[at]} << 24 | std::uint32_t{bytes[at + 1]} << 16 |
           std::uint32_t{bytes[at + 2]} << 8 | bytes[at + 3];
}

inline Bytes text(std::string_view text, std::size_t size) {
    Bytes bytes(text.begin(), text.end());
    bytes.resize(size);
    return bytes;
}

inline Bytes listRequest() {
    return {0x01, 0x11, 0x80, 0x05, 0, 0, 0, 0};
}

inline Bytes importRequest(std::string_view busId) {
    return join({{0x01, 0x11, 0x80, 0x03, 0, 0, 0, 0}, text(busId, 32)});
}

constexpr std::size_t importReplySize = 8 + 312;
constexpr std::size_t headerSize = 48;
constexpr std::uint32_t firstReader = 0x00010001; // bus 1, device 1
enum Direction : std::uint32_t { out = 0, in = 1 };

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
    return join({word(1), word(s.sequence), word(s.device), word(s.direction), word(s.endpoint),
                 word(s.flags), word(s.length), word(0), word(s.packets), word(0), s.setup, s.data});
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
    return join({word(2), word(sequence), word(device), word(0), word(0), word(unlinked), Bytes(24)});
}

// The replies as words: "submitted 5 0 aabb" is sequence number, status and data, where the data comes from the device;
// "submitted 5 0 +2" stands for as many bytes to the device; "unlinked 5 -104". Blanks and "; " between.
class Replies {
public:
    // The sequence numbers of submits that want something from the device.
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
        const std::uint32_t command = wordAt(bytes, 0);
        const std::uint32_t sequence = wordAt(bytes, 4);
        const auto status = static_cast<std::int32_t>(wordAt(bytes, 20));
        const std::string named = std::to_string(sequence) + " " + std::to_string(status);
        if (command != 3) {
            add((command == 4 ? "unlinked " : "unknown ") + named);
            return headerSize;
        }
        const std::size_t actual = wordAt(bytes, 24);
        bool in = false;
        for (const std::uint32_t each : m_fetched) {
            in |= each == sequence;
        }
        if (!in) {
            add("submitted " + named + " +" + std::to_string(actual));
            return headerSize;
        }
        const std::size_t there = std::min(actual, bytes.size() - headerSize);
        add("submitted " + named + " " + emulator::hexText(bytes.subspan(headerSize, there)));
        return headerSize + there;
    }

    std::vector<std::uint32_t> m_fetched;
    std::string m_text;
};

} // namespace usbip_client
