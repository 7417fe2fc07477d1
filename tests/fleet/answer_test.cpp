#include "fleet/answer.h"

#include <gtest/gtest.h>

namespace {

using fleet::Answer;
using fleet::answerOf;
using fleet::Status;
using mqtt::MessageProperties;

// As a program reads what another one has sent.
std::optional<Answer> sentAndReceived(const Answer& answer) {
    mqtt::Properties properties;
    addAnswer(properties, answer);
    return answerOf(MessageProperties::of(properties.list()));
}

TEST(AnswerTest, HasStatusCodeTextAndDuration) {
    const auto answer = sentAndReceived(
        {.status = Status::failed, .code = -1130, .text = "GVUSB: (-1130) timeout", .microseconds = 1000123});
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, Status::failed);
    EXPECT_EQ(answer->code, -1130);
    EXPECT_EQ(answer->text, "GVUSB: (-1130) timeout");
    EXPECT_EQ(answer->microseconds, 1000123U);
}

TEST(AnswerTest, LacksCodeAndDurationIfTheLibraryWasNotCalled) {
    const auto answer = sentAndReceived({.status = Status::busy, .text = "32 requests wait"});
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, Status::busy);
    EXPECT_FALSE(answer->code);
    EXPECT_FALSE(answer->microseconds);
}

TEST(AnswerTest, NamesEveryStatus) {
    for (const Status status : {Status::ok, Status::failed, Status::absent, Status::busy, Status::expired,
                                Status::refused, Status::unknown}) {
        EXPECT_EQ(fleet::parseStatus(statusName(status)), status);
    }
    EXPECT_FALSE(fleet::parseStatus("OK"));
    EXPECT_FALSE(fleet::parseStatus(""));
}

TEST(AnswerTest, OfAnotherMessageIsNothing) {
    EXPECT_FALSE(answerOf({}));
    MessageProperties properties;
    properties.userProperties = {{"status", "fine"}, {"code", "1"}};
    EXPECT_FALSE(answerOf(properties));
}

TEST(AnswerTest, IgnoresNumbersThatAreNone) {
    MessageProperties properties;
    properties.userProperties = {{"status", "ok"}, {"code", "12x"}, {"duration", "-1"}};
    const auto answer = answerOf(properties);
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->code);
    EXPECT_FALSE(answer->microseconds);
}

} // namespace
