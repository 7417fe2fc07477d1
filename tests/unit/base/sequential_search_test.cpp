#include "base/sequential_search.h"

#include <vector>

#include <gtest/gtest.h>

namespace {

struct CountingSearch {
    std::optional<std::size_t> find(const std::vector<int>& all, int wanted) {
        return search.find(all, [&](int element) {
            ++steps;
            return element == wanted;
        });
    }
    SequentialSearch search;
    int steps = 0;
};

TEST(SequentialSearch, FindsEachInAnyOrder) {
    const std::vector<int> all = {10, 11, 12, 13};
    for (const int first : all) {
        for (const int second : all) {
            CountingSearch search;
            EXPECT_EQ(search.find(all, first), first - 10);
            EXPECT_EQ(search.find(all, second), second - 10) << "after " << first;
        }
    }
}

TEST(SequentialSearch, TakesOneStepPerElementInOrderAlsoInTheSecondPass) {
    const std::vector<int> all = {10, 11, 12, 13};
    CountingSearch search;
    for (int round = 1; round <= 2; ++round) {
        for (const int wanted : all) {
            search.find(all, wanted);
        }
        EXPECT_EQ(search.steps, 4 * round);
    }
}

TEST(SequentialSearch, DoesNotFindAMissingElement) {
    CountingSearch search;
    EXPECT_EQ(search.find({}, 1), std::nullopt);
    EXPECT_EQ(search.find({10, 11}, 11), 1);
    EXPECT_EQ(search.find({10, 11}, 12), std::nullopt);
    EXPECT_EQ(search.find({10, 11}, 10), 0);
}

TEST(SequentialSearch, ToleratesAShrinkingContainer) {
    CountingSearch search;
    EXPECT_EQ(search.find({10, 11, 12, 13}, 13), 3);
    EXPECT_EQ(search.find({10}, 10), 0);
    EXPECT_EQ(search.find({}, 10), std::nullopt);
}

} // namespace
