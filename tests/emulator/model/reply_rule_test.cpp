#include "model/reply_rule.h"

#include <gtest/gtest.h>

namespace emulator {
namespace {

const Bytes frame = {1, 2, 3};

TEST(ReplyRuleTest, EchoesByDefault) {
    EXPECT_EQ(ReplyRule().answer(frame), frame);
    EXPECT_EQ(ReplyRule::parse("echo").answer(frame), frame);
}

TEST(ReplyRuleTest, AnswersByItsRule) {
    EXPECT_EQ(ReplyRule::parse("reverse").answer(frame), (Bytes{3, 2, 1}));
    EXPECT_EQ(ReplyRule::parse("none").answer(frame), std::nullopt);
    EXPECT_EQ(ReplyRule::parse("fixed:0A0b").answer(frame), (Bytes{0x0A, 0x0B}));
    EXPECT_EQ(ReplyRule::parse("fixed:").answer(frame), Bytes{});
    const auto pattern = ReplyRule::parse("pattern:258").answer(frame);
    ASSERT_EQ(pattern->size(), 258U);
    EXPECT_EQ((*pattern)[255], 255);
    EXPECT_EQ((*pattern)[257], 1);
}

TEST(ReplyRuleTest, IsWrittenAsItIsRead) {
    for (const char* text : {"echo", "reverse", "none", "fixed:0aff", "pattern:5"}) {
        EXPECT_EQ(ReplyRule::parse(text).text(), text);
    }
}

TEST(ReplyRuleTest, RejectsUnknownRules) {
    for (const char* wrong : {"", "loud", "echo:1", "fixed", "fixed:1", "pattern", "pattern:x"}) {
        EXPECT_THROW(ReplyRule::parse(wrong), TextError) << wrong;
    }
}

} // namespace
} // namespace emulator
