#include "fleet/answer_problem.h"

#include <gtest/gtest.h>
#include <gvusb.h>

namespace {

using fleet::Status;

Problem problem(Status status, std::optional<int> code = {}) {
    return problemOf({.status = status, .code = code, .text = "why"}).value();
}

TEST(AnswerProblem, IsNoneIfTheRequestWasDone) {
    EXPECT_FALSE(problemOf({.status = Status::ok, .code = 3, .text = "ok"}));
}

TEST(AnswerProblem, HasTheExitStatusOfTheCode) {
    EXPECT_EQ(problem(Status::failed, GVUSB_ERR_TIMEOUT).status, ExitStatus::timeOut);
    EXPECT_EQ(problem(Status::failed, GVUSB_ERR_NOT_PRESENT).status, ExitStatus::notFound);
    EXPECT_EQ(problem(Status::failed, GVUSB_ERR_BULK_TRANSFER).status, ExitStatus::failure);
    EXPECT_EQ(problem(Status::failed).status, ExitStatus::failure);
    EXPECT_EQ(messageOf(problem(Status::failed, GVUSB_ERR_TIMEOUT)), "why [GVUSB_ERR_TIMEOUT]");
    EXPECT_EQ(messageOf(problem(Status::failed, -4711)), "why");
}

TEST(AnswerProblem, HasTheExitStatusOfWhatKeptTheRequestFromRunning) {
    EXPECT_EQ(problem(Status::absent, GVUSB_ERR_NO_DEVICE_FOUND).status, ExitStatus::notFound);
    EXPECT_EQ(problem(Status::absent).status, ExitStatus::notFound);
    EXPECT_EQ(problem(Status::expired).status, ExitStatus::timeOut);
    for (const Status status : {Status::busy, Status::refused, Status::unknown}) {
        EXPECT_EQ(problem(status).status, ExitStatus::failure);
    }
}

TEST(AnswerProblem, SaysWhatToDo) {
    EXPECT_EQ(problem(Status::busy).text, "busy: why; try again later");
    EXPECT_EQ(problem(Status::unknown).text, "result unknown: why");
}

TEST(AnswerProblem, ShowsNoControlCharacters) {
    EXPECT_EQ(problemOf({.status = Status::refused, .text = "\x1b[2J"}).value().text, "refused: ?[2J");
}

} // namespace
