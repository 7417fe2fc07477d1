#include "model/frame_rules.h"

#include <gtest/gtest.h>

namespace emulator {
namespace {

using namespace std::chrono_literals;
using Action = FrameRule::Action;

Bytes replyTo(const FrameRule& rule, const Bytes& frame) {
    return rule.reply.value().answer(frame).value();
}

TEST(FrameRuleTest, ReadsEveryAction) {
    EXPECT_EQ(FrameRule::parse("stall").action, Action::stall);
    EXPECT_EQ(FrameRule::parse("mute").action, Action::mute);
    EXPECT_EQ(FrameRule::parse("unplug").action, Action::unplug);
    EXPECT_EQ(replyTo(FrameRule::parse("reply 90 00"), {1}), (Bytes{0x90, 0x00}));
    EXPECT_EQ(replyTo(FrameRule::parse("reply reverse"), {1, 2}), (Bytes{2, 1}));
    EXPECT_EQ(replyTo(FrameRule::parse("reply fixed:6F"), {1}), Bytes{0x6F});
    EXPECT_FALSE(FrameRule::parse("reply none").reply.value().answer({1}).has_value());
    const FrameRule late = FrameRule::parse("delay 40");
    EXPECT_EQ(late.action, Action::reply);
    EXPECT_EQ(late.delay, 40ms);
    EXPECT_FALSE(late.reply.has_value());
    const FrameRule lateReply = FrameRule::parse("delay 40 reply 9000");
    EXPECT_EQ(lateReply.delay, 40ms);
    EXPECT_EQ(replyTo(lateReply, {1}), (Bytes{0x90, 0x00}));
}

TEST(FrameRuleTest, RejectsOtherTexts) {
    for (const char* text : {"", "reply", "reply 900", "reply echoes", "stall in", "mute 1", "unplug now",
                             "delay", "delay soon", "delay 5 stall", "delay 5 6", "explode"}) {
        EXPECT_THROW(FrameRule::parse(text), TextError) << text;
    }
}

TEST(FrameRulesTest, FindsTheLongestBeginning) {
    FrameRules rules;
    EXPECT_EQ(rules.find({1}), nullptr);
    rules.set({1}, FrameRule::parse("mute"));
    rules.set({1, 2, 3}, FrameRule::parse("stall"));
    rules.set({1, 2}, FrameRule::parse("unplug"));
    EXPECT_EQ(rules.find({1})->action, Action::mute);
    EXPECT_EQ(rules.find({1, 9, 3})->action, Action::mute);
    EXPECT_EQ(rules.find({1, 2})->action, Action::unplug);
    EXPECT_EQ(rules.find({1, 2, 3, 4})->action, Action::stall);
    EXPECT_EQ(rules.find({2, 1}), nullptr);
    EXPECT_EQ(rules.find({}), nullptr);
    rules.set({1}, FrameRule::parse("stall"));
    EXPECT_EQ(rules.find({1})->action, Action::stall);
    rules.remove({1, 2, 3});
    EXPECT_EQ(rules.find({1, 2, 3})->action, Action::unplug);
    rules.remove({7});
    rules.clear();
    EXPECT_EQ(rules.find({1}), nullptr);
}

} // namespace
} // namespace emulator
