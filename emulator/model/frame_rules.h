// What a reader does with frames that begin with certain bytes, instead of what it does with all others.
//
// Plain values; one thread at a time.
#pragma once

#include "model/reply_rule.h"
#include "model/transfer.h"

#include <map>
#include <optional>
#include <string_view>

namespace emulator {

struct FrameRule {
    enum class Action {
        reply,
        stall,  // control: the frame's transfer; bulk: reading, until the halt is cleared
        mute,   // no answer
        unplug, // the reader unplugs itself
    };
    Action action = Action::reply;
    std::optional<ReplyRule> reply = std::nullopt; // none: as for other frames
    Milliseconds delay{0};                         // of the answer

    // "reply HEX", "reply RULE", "stall", "mute", "unplug" or "delay MS", which may be followed by a reply. Throws
    // TextError.
    static FrameRule parse(std::string_view text);
};

class FrameRules {
public:
    // Replaces the rule with the same beginning.
    void set(Bytes beginning, FrameRule rule) { m_rules[std::move(beginning)] = std::move(rule); }
    void remove(const Bytes& beginning) { m_rules.erase(beginning); }
    void clear() { m_rules.clear(); }

    // The rule with the longest beginning that the frame has, or null.
    const FrameRule* find(const Bytes& frame) const;

private:
    std::map<Bytes, FrameRule> m_rules;
};

} // namespace emulator
