#include "model/time_range.h"

#include <gtest/gtest.h>

namespace emulator {
namespace {

using namespace std::chrono_literals;

TEST(TimeRangeTest, ReadsOneTimeOrTwo) {
    const TimeRange one = TimeRange::parse("delay", "7");
    EXPECT_EQ(one.shortest, 7ms);
    EXPECT_EQ(one.longest, 7ms);
    EXPECT_FALSE(one.needsDraw());
    const TimeRange two = TimeRange::parse("delay", "7-3600000");
    EXPECT_EQ(two.shortest, 7ms);
    EXPECT_EQ(two.longest, 1h);
    EXPECT_TRUE(two.needsDraw());
}

TEST(TimeRangeTest, RejectsOtherTexts) {
    for (const char* text : {"", "-", "5-", "-5", "5-4", "1-2-3", "3600001", "1 -2", "soon"}) {
        EXPECT_THROW(TimeRange::parse("delay", text), TextError) << text;
    }
}

TEST(TimeRangeTest, DrawsEverythingInTheRange) {
    const TimeRange range = TimeRange::parse("delay", "2-4");
    Draws draws(1);
    Time::duration least = 1h;
    Time::duration most{};
    for (int i = 0; i < 10000; ++i) {
        const Time::duration drawn = range.draw(draws);
        least = std::min(least, drawn);
        most = std::max(most, drawn);
    }
    EXPECT_GE(least, 2ms);
    EXPECT_LT(least, 2100us);
    EXPECT_LE(most, 4ms);
    EXPECT_GT(most, 3900us);
    EXPECT_EQ(TimeRange::parse("delay", "5").draw(draws), 5ms);
}

} // namespace
} // namespace emulator
