// A packet of a capture, as usbmon describes it: the submission of a transfer, its completion, or the error with which
// its submission failed.
//
// Any thread.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace capture {

using Bytes = std::vector<std::uint8_t>;

// Since 1970 in UTC.
using Time = std::chrono::nanoseconds;

// A capture that claims a later time is damaged. Differences of times up to this can be counted.
inline constexpr Time latest = std::chrono::seconds(0xFFFF'FFFF);

// With usbmon's numbers.
enum class TransferType : std::uint8_t { isochronous = 0, interrupt = 1, control = 2, bulk = 3 };

enum class PacketKind : std::uint8_t { submission = 'S', completion = 'C', submissionError = 'E' };

inline constexpr std::uint8_t directionIn = 0x80;
inline constexpr std::size_t setupSize = 8;

using SetupPacket = std::array<std::uint8_t, setupSize>;

// The status of a transfer that is under way.
inline constexpr std::int32_t inProgress = -115;

// Wireshark takes no longer packet.
inline constexpr std::size_t mostData = 262'144 - 64;

struct Packet {
    std::uint64_t id = 0; // of the transfer; may be used again after its completion
    PacketKind kind = PacketKind::submission;
    TransferType type = TransferType::bulk;
    std::uint8_t endpoint = 0; // with the direction bit
    std::uint8_t address = 0;  // of the device
    std::uint16_t bus = 0;
    std::optional<SetupPacket> setup; // of a submission
    Time time{};
    std::int32_t status = inProgress; // 0 or a negative errno
    std::uint32_t length = 0;         // requested in a submission, transferred in a completion
    std::span<const std::uint8_t> data;
    std::int32_t interval = 0;
    std::uint32_t flags = 0; // the kernel's
};

} // namespace capture
