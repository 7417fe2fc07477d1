// Which data a recording leaves out, so that frames that must not travel do not.
//
// Any thread.
#pragma once

#include "capture/packet.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace recorder {

// Bytes to look for in frames, such as "04 ?? A1": ?? stands for any byte.
class Pattern {
public:
    // Empty if the text is no pattern.
    static std::optional<Pattern> parse(std::string_view text);

    bool isIn(std::span<const std::uint8_t> data) const;

private:
    std::vector<std::optional<std::uint8_t>> m_bytes;
};

struct Redaction {
    bool all = false;
    std::vector<Pattern> matching;

    bool isWanted() const { return all || !matching.empty(); }

    // Whether a transfer of this type holds a frame. What standard requests transfer is no frame: descriptors,
    // strings, states.
    static bool isFrame(capture::TransferType type, const std::optional<capture::SetupPacket>& setup);

    // Replace the data by a marker of the same length. Returns false if they may stay.
    bool replace(std::vector<std::uint8_t>& data) const;
};

} // namespace recorder
