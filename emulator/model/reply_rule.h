// How a reader answers a frame. The same frame always gets the same answer.
//
// Plain values; any thread may use them.
#pragma once

#include "model/text.h"

#include <optional>
#include <string>
#include <string_view>

namespace emulator {

class ReplyRule {
public:
    // Echo.
    ReplyRule() = default;

    // "echo", "reverse", "none", "fixed:HEX" or "pattern:COUNT" (COUNT bytes 00 01 02 ... FF 00 ...).
    // Throws TextError.
    static ReplyRule parse(std::string_view text);

    static ReplyRule fixed(Bytes answer);

    // Empty if the reader does not answer.
    std::optional<Bytes> answer(const Bytes& frame) const;

    std::string text() const;

private:
    enum class Kind { echo, reverse, none, fixed, pattern };
    Kind m_kind = Kind::echo;
    Bytes m_bytes;
};

} // namespace emulator
