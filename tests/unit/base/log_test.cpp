#include "base/log.h"

#include "captured_stdout.h"
#include "clock.h"
#include "manager_test.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace {

using support::CapturedStdout;
using support::FixedTime;
using support::setTime;

class Log : public ManagerTest {
protected:
    ~Log() override {
        support::useRealTime();
        GVLOG_SetLevel(0);
    }

    // The line that is printed at this time.
    static std::string lineAt(long seconds, long microseconds) {
        setTime(seconds, microseconds);
        CapturedStdout output;
        GVLOG_Msg("scan", "no devices");
        return output.takeText();
    }

    static void startAt(long seconds, long microseconds) {
        setTime(seconds, microseconds);
        GVLOG_SetLevel(1);
    }
};

TEST_F(Log, NothingIsLoggedAfterLoadingWithoutConfiguration) {
    EXPECT_EQ(GVLOG_Level(), 0);
    EXPECT_EQ(g_GvUsbDebugLevel, 0);
}

TEST_F(Log, SettingTheLevelStoresTheTime) {
    const FixedTime now(123456, 654321);
    GVLOG_SetLevel(2);
    EXPECT_EQ(GVLOG_Level(), 2);
    EXPECT_EQ(g_GvUsbDebugLevel, 2);
    EXPECT_EQ(g_GvUsbStarttime.tv_sec, 123456);
    EXPECT_EQ(g_GvUsbStarttime.tv_usec, 654321);
}

TEST_F(Log, LevelIsStoredUnchanged) {
    for (const int level : {INT_MIN, -1, 0, 1, 3, INT_MAX}) {
        GVLOG_SetLevel(level);
        EXPECT_EQ(GVLOG_Level(), level);
    }
}

TEST_F(Log, LineHasTimeTagAndText) {
    startAt(1000, 0);
    EXPECT_EQ(lineAt(1003, 500000), " 3.500000 :: gvusb: [scan] no devices\n");
}

TEST_F(Log, TimeCountsFromTheLevelsSetting) {
    struct Row {
        long startSeconds, startMicroseconds, seconds, microseconds;
        const char* time;
    };
    const Row rows[] = {
        {10, 900000, 12, 100000, " 1.200000"},
        {10, 0, 10, 0, " 0.000000"},
        {10, 0, 10, 1, " 0.000001"},
        {10, 999999, 11, 0, " 0.000001"},
        {10, 1, 11, 0, " 0.999999"},
        {10, 1, 11, 1, " 1.000000"},
        {10, 0, 19, 999999, " 9.999999"},
        {10, 0, 20, 0, "10.000000"},
        {10, 0, 109, 999999, "99.999999"},
        {10, 0, 110, 1, "100.000001"},
        {0, 0, 1700000000, 42, "1700000000.000042"},
    };
    for (const Row& row : rows) {
        startAt(row.startSeconds, row.startMicroseconds);
        EXPECT_EQ(lineAt(row.seconds, row.microseconds),
                  std::string(row.time) + " :: gvusb: [scan] no devices\n");
    }
}

TEST_F(Log, ClockThatIsSetBackShowsItsAbsoluteTime) {
    struct Row {
        long startSeconds, startMicroseconds, seconds, microseconds;
    };
    const Row rows[] = {
        {10, 500000, 10, 499999},
        {10, 500000, 9, 500000},
        {10, 500000, 9, 999999},
        {10, 0, 9, 999999},
        {10, 500000, 0, 0},
        {1700000000, 1, 1699999999, 0},
        {1700000000, 999999, 0, 5000},
        {10, 0, -5, 1},
    };
    for (const Row& row : rows) {
        startAt(row.startSeconds, row.startMicroseconds);
        EXPECT_EQ(lineAt(row.seconds, row.microseconds), " 0.000000 :: gvusb: [scan] no devices\n");
    }
}

TEST_F(Log, TimeStartsFromZeroWhenASetBackClockReachesTheStartTime) {
    startAt(10, 500000);
    EXPECT_EQ(lineAt(10, 499999), " 0.000000 :: gvusb: [scan] no devices\n");
    EXPECT_EQ(lineAt(10, 500000), " 0.000000 :: gvusb: [scan] no devices\n");
    EXPECT_EQ(lineAt(11, 600000), " 1.100000 :: gvusb: [scan] no devices\n");
}

TEST_F(Log, SettingTheLevelAgainRestartsTheTime) {
    startAt(1000, 0);
    startAt(2000, 250000);
    EXPECT_EQ(lineAt(2001, 250000), " 1.000000 :: gvusb: [scan] no devices\n");
}

TEST_F(Log, LevelWrittenDirectlyKeepsTheStartTime) {
    startAt(0, 0);
    relaxed::store(g_GvUsbDebugLevel, 3);
    EXPECT_EQ(GVLOG_Level(), 3);
    EXPECT_EQ(lineAt(1700000000, 5), "1700000000.000005 :: gvusb: [scan] no devices\n");
}

TEST_F(Log, EveryMessageIsPrintedAtAnyLevelAboveZero) {
    for (const int level : {1, 2, 3, INT_MAX}) {
        setTime(0, 0);
        GVLOG_SetLevel(level);
        EXPECT_EQ(lineAt(0, 0), " 0.000000 :: gvusb: [scan] no devices\n") << level;
    }
}

TEST_F(Log, NothingIsPrintedOrTimedAtZeroAndBelow) {
    for (const int level : {0, -1, INT_MIN}) {
        setTime(0, 0);
        GVLOG_SetLevel(level);
        EXPECT_EQ(support::timeReads(), 1);
        EXPECT_EQ(lineAt(0, 0), "") << level;
        EXPECT_EQ(support::timeReads(), 0) << level;
    }
}

TEST_F(Log, TextIsPrintedLiterally) {
    startAt(0, 0);
    CapturedStdout output;
    GVLOG_Msg("100%s", "%n%d %% \x80\xFF\ttab");
    GVLOG_Msg("", "");
    EXPECT_EQ(output.takeText(), " 0.000000 :: gvusb: [100%s] %n%d %% \x80\xFF\ttab\n"
                                 " 0.000000 :: gvusb: [] \n");
}

TEST_F(Log, LongTextIsPrintedWhole) {
    startAt(0, 0);
    const std::string text(100'000, 'x');
    CapturedStdout output;
    GVLOG_Msg("receive", text.c_str());
    EXPECT_EQ(output.takeText(), " 0.000000 :: gvusb: [receive] " + text + "\n");
}

TEST_F(Log, LinesStayInTheOutputBuffer) {
    startAt(0, 0);
    char* written = nullptr;
    std::size_t size = 0;
    std::FILE* const original = stdout;
    std::fflush(stdout);
    stdout = open_memstream(&written, &size);
    GVLOG_Msg("scan", "no devices");
    const std::size_t sizeBefore = size;
    std::fclose(stdout);
    stdout = original;
    EXPECT_EQ(sizeBefore, 0u);
    EXPECT_EQ(std::string(written, size), " 0.000000 :: gvusb: [scan] no devices\n");
    std::free(written);
}

TEST_F(Log, LinesOfSeveralThreadsAreNotInterleaved) {
    constexpr int each = 200;
    CapturedStdout output;
    GVLOG_SetLevel(1);
    const auto log = [](const char* tag) {
        const std::string text(300, tag[0]);
        for (int i = 0; i < each; ++i) {
            GVLOG_Msg(tag, text.c_str());
        }
    };
    std::thread other(log, "a");
    log("b");
    GVLOG_SetLevel(2);
    other.join();
    int lines = 0;
    for (const std::string& line : output.takeLogLines()) {
        ++lines;
        EXPECT_TRUE(line == "[a] " + std::string(300, 'a') || line == "[b] " + std::string(300, 'b')) << line;
    }
    EXPECT_EQ(lines, 2 * each);
}

} // namespace
