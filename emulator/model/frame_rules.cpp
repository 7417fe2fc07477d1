#include "model/frame_rules.h"

#include <algorithm>

namespace emulator {

namespace {

constexpr std::uint64_t longestDelay = 3'600'000;

// Bytes, or the name of a rule: none of these names consists of hexadecimal digits.
ReplyRule parseReply(std::string_view text) {
    constexpr std::string_view blanksAndDigits = " \t0123456789abcdefABCDEF";
    if (text.empty()) {
        throw TextError("missing reply");
    }
    if (text.find_first_not_of(blanksAndDigits) == std::string_view::npos) {
        return ReplyRule::fixed(hexBytes("reply", text));
    }
    return ReplyRule::parse(text);
}

} // namespace

FrameRule FrameRule::parse(std::string_view text) {
    FrameRule rule;
    const std::string_view all = text;
    std::string_view word = takeWord(text);
    const bool delayed = word == "delay";
    if (delayed) {
        rule.delay = Milliseconds(number("delay", takeWord(text), 0, longestDelay));
        if (text.empty()) {
            return rule;
        }
        word = takeWord(text);
    }
    if (word == "reply") {
        rule.reply = parseReply(text);
        return rule;
    }
    if (word == "stall" && !delayed) {
        rule.action = Action::stall;
    } else if (word == "mute" && !delayed) {
        rule.action = Action::mute;
    } else if (word == "unplug" && !delayed) {
        rule.action = Action::unplug;
    } else {
        throw TextError("expected reply HEX, reply RULE, stall, mute, unplug, delay MS, delay MS reply ... "
                        "or off, not '" +
                        std::string(all) + "'");
    }
    if (!text.empty()) {
        throw TextError("unexpected argument '" + std::string(text) + "'");
    }
    return rule;
}

const FrameRule* FrameRules::find(const Bytes& frame) const {
    const FrameRule* best = nullptr;
    std::size_t longest = 0;
    for (const auto& [beginning, rule] : m_rules) {
        if (beginning.size() >= longest && beginning.size() <= frame.size() &&
            std::equal(beginning.begin(), beginning.end(), frame.begin())) {
            best = &rule;
            longest = beginning.size();
        }
    }
    return best;
}

} // namespace emulator
