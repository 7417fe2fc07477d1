// What a reader answers to a frame: always the same answer to the same frame.
//
// Plain values; any thread may use them.
#pragma once

#include "text.h"

#include <optional>
#include <string>
#include <string_view>

namespace emulator {

class ReplyRule {
public:
    // Echo, the answer of a reader that nobody told anything else.
    ReplyRule() = default;

    // "echo", "reverse", "none", "fixed:HEX" or "pattern:COUNT" (COUNT bytes 00 01 02 ... FF 00 ...).
    // Throws TextError.
    static ReplyRule parse(std::string_view text);

    // The answer to `frame`; nothing when the reader stays silent.
    std::optional<Bytes> answer(const Bytes& frame) const;

    std::string text() const;

private:
    enum class Kind { echo, reverse, none, fixed, pattern };
    Kind m_kind = Kind::echo;
    Bytes m_bytes;
};

} // namespace emulator
