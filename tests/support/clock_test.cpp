#include "clock.h"

#include <cstdlib>
#include <ctime>
#include <sys/time.h>

#include <gtest/gtest.h>

namespace {

timeval now() {
    timeval time = {};
    EXPECT_EQ(gettimeofday(&time, nullptr), 0);
    return time;
}

} // namespace

TEST(ClockTest, StopsAtTheTimeThatWasSet) {
    const support::FixedTime time(12, 100000);
    EXPECT_EQ(now().tv_sec, 12);
    EXPECT_EQ(now().tv_usec, 100000);
    EXPECT_EQ(support::timeReads(), 2);
    support::setTime(13, 0);
    EXPECT_EQ(now().tv_sec, 13);
}

TEST(ClockTest, IsRealOtherwise) {
    {
        const support::FixedTime time(12, 0);
        EXPECT_EQ(now().tv_sec, 12);
    }
    EXPECT_LE(std::labs(now().tv_sec - std::time(nullptr)), 1);
    EXPECT_EQ(support::timeReads(), 1);
}
