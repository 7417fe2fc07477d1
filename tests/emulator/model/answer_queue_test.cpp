#include "model/answer_queue.h"

#include <gtest/gtest.h>

namespace emulator {
namespace {

TEST(AnswerQueueTest, DropsAnswersBeyondTheLimit) {
    AnswerQueue answers;
    const Bytes quarter(AnswerQueue::mostRoom / 4);
    for (int i = 0; i < 5; ++i) {
        answers.push(quarter);
    }
    EXPECT_EQ(answers.size(), 3U);
    answers.push(Bytes{1});
    EXPECT_EQ(answers.size(), 4U) << "a short one still fits";
    answers.pop();
    answers.push(quarter);
    answers.push(quarter);
    EXPECT_EQ(answers.size(), 4U) << "reading an answer makes room";
    answers.clear();
    for (int i = 0; i < 3; ++i) {
        answers.push(quarter);
    }
    EXPECT_EQ(answers.size(), 3U);
}

TEST(AnswerQueueTest, LimitsEmptyAnswersToo) {
    AnswerQueue answers;
    for (std::size_t i = 0; i < AnswerQueue::mostRoom / 16; ++i) {
        answers.push({});
    }
    EXPECT_LT(answers.size(), AnswerQueue::mostRoom / 16);
    EXPECT_GT(answers.size(), 1000U);
}

} // namespace
} // namespace emulator
