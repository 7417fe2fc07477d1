// Composing log messages from parts.
#include "base/log.h"

#include "captured_stdout.h"
#include "manager_test.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct GroupedDigits : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
    std::string do_truename() const override { return "wahr"; }
};

class LogLine : public ManagerTest {
protected:
    LogLine() { GVLOG_SetLevel(1); }
    ~LogLine() override { GVLOG_SetLevel(0); }

    template <class... Pieces>
    static std::string logged(const Pieces&... pieces) {
        support::CapturedStdout output;
        logLine("tag", pieces...);
        const auto lines = output.takeLogLines();
        EXPECT_EQ(lines.size(), 1u);
        return lines.empty() ? "" : lines.front();
    }
};

TEST_F(LogLine, ConcatenatesItsParts) {
    EXPECT_EQ(logged("size=", 12, ", name=", std::string("READER ONE")), "[tag] size=12, name=READER ONE");
    EXPECT_EQ(logged("code ", -1150), "[tag] code -1150");
    EXPECT_EQ(logged(""), "[tag] ");
}

TEST_F(LogLine, NumbersStayHexadecimalUntilTheyAreSwitchedBack) {
    EXPECT_EQ(logged(10, " 0x", std::hex, 0x1A2Bu, " rc=", -1150), "[tag] 10 0x1a2b rc=fffffb82");
    EXPECT_EQ(logged("0x", std::hex, 255, " ", std::dec, 255), "[tag] 0xff 255");
}

TEST_F(LogLine, NextMessageIsDecimalAgain) {
    EXPECT_EQ(logged(std::hex, 255), "[tag] ff");
    EXPECT_EQ(logged(255), "[tag] 255");
}

TEST_F(LogLine, BooleansAreDigits) {
    EXPECT_EQ(logged(true, false), "[tag] 10");
}

TEST_F(LogLine, NullTextEndsTheMessage) {
    const char* const missing = nullptr;
    EXPECT_EQ(logged("before", missing, "after", 7), "[tag] before");
}

TEST_F(LogLine, DoesNotDependOnTheGlobalLocale) {
    const std::locale before = std::locale::global(std::locale(std::locale(), new GroupedDigits));
    const std::string line = logged(1234567, " ", std::hex, std::uint32_t{0xFFFFFFFF}, " ", true);
    std::locale::global(before);
    EXPECT_EQ(line, "[tag] 1234567 ffffffff 1");
}

TEST_F(LogLine, FunctionIsCalledForItsPart) {
    EXPECT_EQ(logged(
                  "before ", [] { return std::string_view("result"); }, " after"),
              "[tag] before result after");
}

TEST_F(LogLine, IsPrintedFromItsLevelOn) {
    for (int level = -1; level <= 4; ++level) {
        SCOPED_TRACE(level);
        support::CapturedStdout output;
        GVLOG_SetLevel(level);
        log<Level::manager>("tag", 1);
        log<Level::reader>("tag", 2);
        log<Level::poll>("tag", 3);
        std::vector<std::string> expected;
        for (int printed = 1; printed <= std::min(level, 3); ++printed) {
            expected.push_back("[tag] " + std::to_string(printed));
        }
        EXPECT_EQ(output.takeLogLines(), expected);
    }
}

TEST_F(LogLine, FunctionIsNotCalledIfTheMessageIsNotPrinted) {
    int calls = 0;
    log<Level::reader>("tag", [&] { return ++calls; });
    EXPECT_EQ(calls, 0);
}

} // namespace
