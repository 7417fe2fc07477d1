#include "model/reply_rule.h"

namespace emulator {

namespace {

// Longer than any transfer.
constexpr std::size_t longestPattern = 1U << 20;

} // namespace

ReplyRule ReplyRule::parse(std::string_view text) {
    ReplyRule rule;
    const auto colon = text.find(':');
    const std::string_view kind = text.substr(0, colon);
    const std::string_view value =
        colon == std::string_view::npos ? std::string_view{} : text.substr(colon + 1);
    if (kind == "echo" && value.empty()) {
        rule.m_kind = Kind::echo;
    } else if (kind == "reverse" && value.empty()) {
        rule.m_kind = Kind::reverse;
    } else if (kind == "none" && value.empty()) {
        rule.m_kind = Kind::none;
    } else if (kind == "fixed" && colon != std::string_view::npos) {
        rule.m_kind = Kind::fixed;
        rule.m_bytes = hexBytes("fixed reply", value);
    } else if (kind == "pattern") {
        rule.m_kind = Kind::pattern;
        rule.m_bytes.resize(static_cast<std::size_t>(number("pattern length", value, 0, longestPattern)));
        for (std::size_t i = 0; i < rule.m_bytes.size(); ++i) {
            rule.m_bytes[i] = static_cast<std::uint8_t>(i);
        }
    } else {
        throw TextError("reply must be echo, reverse, none, fixed:HEX or pattern:COUNT, not '" +
                        std::string(text) + "'");
    }
    return rule;
}

ReplyRule ReplyRule::fixed(Bytes answer) {
    ReplyRule rule;
    rule.m_kind = Kind::fixed;
    rule.m_bytes = std::move(answer);
    return rule;
}

std::optional<Bytes> ReplyRule::answer(const Bytes& frame) const {
    switch (m_kind) {
    case Kind::echo:
        return frame;
    case Kind::reverse:
        return Bytes(frame.rbegin(), frame.rend());
    case Kind::none:
        return std::nullopt;
    case Kind::fixed:
    case Kind::pattern:
        break;
    }
    return m_bytes;
}

std::string ReplyRule::text() const {
    switch (m_kind) {
    case Kind::echo:
        return "echo";
    case Kind::reverse:
        return "reverse";
    case Kind::none:
        return "none";
    case Kind::fixed:
        return "fixed:" + hexText(m_bytes);
    case Kind::pattern:
        break;
    }
    return "pattern:" + std::to_string(m_bytes.size());
}

} // namespace emulator
