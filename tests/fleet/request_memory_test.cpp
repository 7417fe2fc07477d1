#include "fleet/service/request_memory.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace {

namespace fs = std::filesystem;

using fleet::Answer;
using fleet::RequestKey;
using fleet::RequestMemory;
using fleet::Status;
using State = RequestMemory::State;

class RequestMemoryTest : public testing::Test {
protected:
    RequestMemoryTest() {
        char name[] = "/tmp/gvusb-memory-XXXXXX";
        m_folder = ::mkdtemp(name);
        open();
    }
    ~RequestMemoryTest() override {
        m_memory.reset();
        fs::remove_all(m_folder);
    }

    // As after a process that was killed.
    void open(std::size_t requests = 100) {
        m_memory.reset();
        m_memory.emplace(m_folder, requests);
    }
    RequestMemory& memory() { return *m_memory; }
    fs::path file(const char* name) const { return fs::path(m_folder) / name; }

    static RequestKey key(int number) { return {"answers", std::to_string(number)}; }
    static Answer answerOf(int number) {
        return {.status = Status::ok,
                .code = number,
                .text = "ok",
                .microseconds = 17,
                .payload = std::string("\0answer", 7) + std::to_string(number)};
    }

    void run(int number) {
        memory().begin(key(number));
        ASSERT_EQ(memory().flush(), 0);
        memory().setAnswer(key(number), answerOf(number));
        ASSERT_EQ(memory().flush(), 0);
        memory().setDelivered(key(number));
    }

    void expectAnswer(int number) {
        const auto answer = memory().answer(key(number));
        ASSERT_TRUE(answer) << number;
        const Answer expected = answerOf(number);
        EXPECT_EQ(answer->status, expected.status);
        EXPECT_EQ(answer->code, expected.code);
        EXPECT_EQ(answer->text, expected.text);
        EXPECT_EQ(answer->microseconds, expected.microseconds);
        EXPECT_EQ(answer->payload, expected.payload);
    }

private:
    std::string m_folder;
    std::optional<RequestMemory> m_memory;
};

TEST_F(RequestMemoryTest, KnowsWhatRunsAndWhatHasBeenAnswered) {
    EXPECT_EQ(memory().state(key(1)), State::unknownRequest);
    memory().begin(key(1));
    EXPECT_EQ(memory().state(key(1)), State::running);
    EXPECT_FALSE(memory().answer(key(1)));
    memory().setAnswer(key(1), answerOf(1));
    EXPECT_EQ(memory().state(key(1)), State::answered);
    expectAnswer(1); // not written yet
    EXPECT_EQ(memory().flush(), 0);
    expectAnswer(1);
}

TEST_F(RequestMemoryTest, TellsKeysApartByBothParts) {
    memory().begin({"a", "bc"});
    EXPECT_EQ(memory().state({"ab", "c"}), State::unknownRequest);
    EXPECT_EQ(memory().state({"a", std::string("bc\0", 3)}), State::unknownRequest);
}

TEST_F(RequestMemoryTest, KeepsAnswersOverARestart) {
    run(1);
    run(2);
    open();
    expectAnswer(1);
    expectAnswer(2);
    EXPECT_EQ(memory().state(key(3)), State::unknownRequest);
}

TEST_F(RequestMemoryTest, AnswersUnknownWhatRanWhenTheProcessEnded) {
    memory().begin(key(1));
    ASSERT_EQ(memory().flush(), 0);
    open();
    ASSERT_TRUE(memory().answer(key(1)));
    EXPECT_EQ(memory().answer(key(1))->status, Status::unknown);
    EXPECT_FALSE(memory().answer(key(1))->code);
    EXPECT_EQ(memory().undelivered(), std::vector<RequestKey>{key(1)});
    open(); // and keeps that
    EXPECT_EQ(memory().answer(key(1))->status, Status::unknown);
}

TEST_F(RequestMemoryTest, ForgetsWhatWasNotWritten) {
    memory().begin(key(1));
    open();
    EXPECT_EQ(memory().state(key(1)), State::unknownRequest);
    memory().begin(key(2));
    memory().forget(key(2));
    EXPECT_EQ(memory().state(key(2)), State::unknownRequest);
}

TEST_F(RequestMemoryTest, NamesAnswersThatTheBrokerMayNotHave) {
    run(1);
    memory().begin(key(2));
    memory().setAnswer(key(2), answerOf(2));
    ASSERT_EQ(memory().flush(), 0);
    open();
    EXPECT_EQ(memory().undelivered(), std::vector<RequestKey>{key(2)});
    memory().setDelivered(key(2));
    ASSERT_EQ(memory().flush(), 0);
    open();
    EXPECT_TRUE(memory().undelivered().empty());
}

TEST_F(RequestMemoryTest, RemembersTheLastRequestsWithBoundedFiles) {
    open(10);
    std::uintmax_t largest = 0;
    for (int number = 0; number < 1000; ++number) {
        run(number);
        for (int earlier = std::max(0, number - 9); earlier <= number; ++earlier) {
            expectAnswer(earlier);
        }
        largest = std::max(largest, fs::file_size(file("requests")) + fs::file_size(file("requests.older")));
    }
    EXPECT_EQ(memory().state(key(900)), State::unknownRequest);
    EXPECT_LT(largest, 5000U);
    open(10);
    for (int number = 990; number < 1000; ++number) {
        expectAnswer(number);
    }
}

TEST_F(RequestMemoryTest, RemembersWhatStillRunsForAsLongAsItRuns) {
    open(10);
    memory().begin(key(-1));
    memory().begin(key(-2));
    memory().setAnswer(key(-2), answerOf(-2)); // and nobody has it yet
    for (int number = 0; number < 100; ++number) {
        run(number);
        ASSERT_EQ(memory().state(key(-1)), State::running) << number;
        expectAnswer(-2);
    }
    memory().setAnswer(key(-1), answerOf(-1));
    ASSERT_EQ(memory().flush(), 0);
    open(10);
    expectAnswer(-1);
    expectAnswer(-2);
}

TEST_F(RequestMemoryTest, ReadsWhatADamagedFileHasLeft) {
    run(1);
    const auto size = fs::file_size(file("requests"));
    run(2);
    fs::resize_file(file("requests"), fs::file_size(file("requests")) - 3); // in the last record
    open();
    expectAnswer(1);
    EXPECT_NE(memory().state(key(2)), State::unknownRequest);
    fs::resize_file(file("requests"), size);
    fs::resize_file(file("requests"), size + 4096); // zeros, as after a crash of the machine
    open();
    expectAnswer(1);
    run(3);
    open();
    expectAnswer(3);
}

TEST_F(RequestMemoryTest, ReadsAnythingWithoutHarm) {
    for (unsigned int seed = 0; seed < 200; ++seed) {
        run(1);
        std::string bytes(fs::file_size(file("requests")), '\0');
        std::ifstream(file("requests"), std::ios::binary)
            .read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        bytes[seed % bytes.size()] = static_cast<char>(seed * 37);
        std::ofstream(file("requests"), std::ios::binary) << bytes;
        open();
        memory().answer(key(1));
        memory().undelivered();
    }
}

TEST_F(RequestMemoryTest, KnowsWhetherTheMachineHasCrashed) {
    EXPECT_FALSE(memory().machineCrashed()); // a new folder
    open();
    EXPECT_FALSE(memory().machineCrashed()); // the process was killed
    const auto write = [&](const char* state) { std::ofstream(file("state.json")) << state; };
    write(R"({"boot":"another","complete":false})");
    open();
    EXPECT_TRUE(memory().machineCrashed());
    write(R"({"boot":"another","complete":true})");
    open();
    EXPECT_FALSE(memory().machineCrashed());
    write("");
    open();
    EXPECT_TRUE(memory().machineCrashed());
    fs::remove(file("state.json"));
    open();
    EXPECT_TRUE(memory().machineCrashed());
}

TEST_F(RequestMemoryTest, KnowsOfACrashUntilTheSessionHasBeenDiscarded) {
    std::ofstream(file("state.json")) << R"({"boot":"another","complete":false})";
    open();
    open(); // the process was killed before it reached the broker
    EXPECT_TRUE(memory().machineCrashed());
    memory().close();
    open();
    EXPECT_TRUE(memory().machineCrashed());
    memory().setSessionDiscarded();
    EXPECT_FALSE(memory().machineCrashed());
    open();
    EXPECT_FALSE(memory().machineCrashed());
    memory().close();
    open();
    EXPECT_FALSE(memory().machineCrashed());
}

TEST_F(RequestMemoryTest, KeepsMoreRequestsThanItShouldIfTheyStillRun) {
    open(1);
    for (int number = 0; number < 50; ++number) {
        memory().begin(key(number));
        ASSERT_EQ(memory().flush(), 0);
    }
    for (int number = 0; number < 50; ++number) {
        EXPECT_EQ(memory().state(key(number)), State::running);
        memory().setAnswer(key(number), answerOf(number));
        ASSERT_EQ(memory().flush(), 0);
    }
    open(1);
    for (int number = 0; number < 50; ++number) {
        expectAnswer(number);
    }
}

TEST_F(RequestMemoryTest, FindsItsFilesWhereverTheProcessWasKilled) {
    run(1);
    ASSERT_EQ(memory().flush(), 0);
    // Both files were to take their new places, and only the first did.
    fs::rename(file("requests"), file("requests.next"));
    open();
    expectAnswer(1);
    // The next file was being written.
    std::ofstream(file("requests.next")) << "the beginning of a record";
    open();
    expectAnswer(1);
    EXPECT_FALSE(fs::exists(file("requests.next")));
}

// In a process of its own: a file can have only 100 bytes then. Exits with the number of requests that were tried.
[[noreturn]] void fillTheFile(RequestMemory& memory) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {.rlim_cur = 100, .rlim_max = 100};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    int error = 0;
    int number = 0;
    while (error == 0) {
        memory.begin({"answers", std::to_string(number++)});
        error = memory.flush();
    }
    std::_Exit(error == EFBIG ? number : 0);
}

// Exits with 7 if an answer that could not be written is lost, not confused with what was written later.
[[noreturn]] void loseAnAnswer(RequestMemory& memory) {
    std::signal(SIGXFSZ, SIG_IGN);
    memory.begin({"answers", "1"});
    memory.flush();
    rlimit limit = {.rlim_cur = 30, .rlim_max = 10000};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    memory.setAnswer({"answers", "1"}, {.text = "first"});
    const bool failed = memory.flush() != 0;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_FSIZE, &limit);
    memory.begin({"answers", "2"});
    memory.setAnswer({"answers", "2"}, {.text = "other"});
    const bool written = memory.flush() == 0;
    const bool isLost = !memory.answer({"answers", "1"}).has_value();
    const auto other = memory.answer({"answers", "2"});
    std::_Exit(failed && written && isLost && other && other->text == "other" ? 7 : 1);
}

TEST_F(RequestMemoryTest, LosesOnlyAnAnswerThatCannotBeWritten) {
    EXPECT_EXIT(loseAnAnswer(memory()), testing::ExitedWithCode(7), "");
}

TEST_F(RequestMemoryTest, ReportsThatItCannotBeWritten) {
    EXPECT_EXIT(fillTheFile(memory()), testing::ExitedWithCode(5), "");
    open();
    EXPECT_EQ(memory().state(key(3)), State::answered); // as unknown
    EXPECT_EQ(memory().state(key(4)), State::unknownRequest);
}

TEST_F(RequestMemoryTest, BelongsToOneProcess) {
    EXPECT_THROW(RequestMemory(file("").string(), 10), std::system_error);
    EXPECT_THROW(RequestMemory("/nonexistent/folder", 10), std::system_error);
}

} // namespace
