#include "commands/histogram.h"

#include <algorithm>
#include <numeric>
#include <sstream>

#include <gtest/gtest.h>

namespace {

std::vector<std::string> linesOf(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(HistogramTest, HasOneRowForTimesThatAreAlike) {
    EXPECT_EQ(histogram({0.5, 0.5}, 50), "    0.500 to     0.500 ms  " + std::string(20, '#') + "  2\n");
}

TEST(HistogramTest, CountsEveryTimeOnce) {
    std::vector<double> times(1000);
    std::iota(times.begin(), times.end(), 1.0);
    const std::vector<std::string> lines = linesOf(histogram(times, 60));
    ASSERT_EQ(lines.size(), 10U);
    std::size_t sum = 0;
    for (const std::string& line : lines) {
        EXPECT_LE(line.size(), 60U);
        sum += std::stoul(line.substr(line.rfind(' ') + 1));
    }
    EXPECT_EQ(sum, times.size());
    EXPECT_EQ(lines.front().substr(0, 25), "    1.000 to   110.889 ms");
    EXPECT_EQ(lines.back().substr(0, 25), "  990.000 to  1000.000 ms");
    EXPECT_TRUE(lines.back().ends_with("  10"));
}

TEST(HistogramTest, IsNotSqueezedByASlowExchange) {
    std::vector<double> times(99, 1.0);
    for (std::size_t i = 0; i < times.size(); ++i) {
        times[i] += 0.01 * static_cast<double>(i);
    }
    times.push_back(5000);
    const std::vector<std::string> lines = linesOf(histogram(times, 80));
    ASSERT_EQ(lines.size(), 10U);
    EXPECT_EQ(lines[0].find("    1.000 to     1.109 ms  ###"), 0U) << lines[0];
    EXPECT_TRUE(lines.back().ends_with(" 1")) << lines.back();
    EXPECT_NE(lines.back().find("5000.000 ms  #"), std::string::npos) << lines.back();
}

} // namespace
