#include "commands/statistics.h"

#include <gtest/gtest.h>

namespace {

ExchangeTimes timesOf(std::initializer_list<double> milliseconds) {
    ExchangeTimes times;
    for (const double each : milliseconds) {
        times.add(each);
    }
    return times;
}

TEST(StatisticsTest, ASingleTimeIsEveryStatistic) {
    const ExchangeTimes times = timesOf({4});
    EXPECT_EQ(times.count(), 1U);
    EXPECT_EQ(times.minimum(), 4);
    EXPECT_EQ(times.median(), 4);
    EXPECT_EQ(times.percentile(99), 4);
    EXPECT_EQ(times.maximum(), 4);
}

TEST(StatisticsTest, OrderDoesNotMatter) {
    const ExchangeTimes times = timesOf({5, 1, 9, 3, 7});
    EXPECT_EQ(times.minimum(), 1);
    EXPECT_EQ(times.median(), 5);
    EXPECT_EQ(times.maximum(), 9);
}

TEST(StatisticsTest, MedianOfAnEvenNumberIsTheMeanOfTheMiddleTwo) {
    EXPECT_EQ(timesOf({1, 2, 4, 100}).median(), 3);
}

TEST(StatisticsTest, PercentileIsTheTimeThatThisPercentageDoesNotExceed) {
    ExchangeTimes times;
    for (int i = 200; i >= 1; --i) {
        times.add(i);
    }
    EXPECT_EQ(times.percentile(99), 198);
    EXPECT_EQ(times.percentile(50), 100);
    EXPECT_EQ(times.percentile(100), 200);
    EXPECT_EQ(times.percentile(0), 1);
    EXPECT_EQ(timesOf({1, 2, 3}).percentile(99), 3);
}

TEST(StatisticsTest, TimesMayBeAddedAfterReading) {
    ExchangeTimes times = timesOf({2});
    EXPECT_EQ(times.maximum(), 2);
    times.add(1);
    EXPECT_EQ(times.minimum(), 1);
    EXPECT_EQ(times.maximum(), 2);
}

} // namespace
