#include "base/relaxed.h"

#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace {

TEST(Relaxed, ValuesPassBetweenThreadsWithoutALock) {
    int value = 0;
    std::thread writer([&] {
        for (int i = 1; i <= 1000; ++i) {
            relaxed::store(value, i);
        }
    });
    for (int last = 0; last < 1000;) {
        const int seen = relaxed::load(value);
        ASSERT_GE(seen, last);
        last = seen;
    }
    writer.join();
}

TEST(StoreText, CopiesOnlyUpToTheTerminatingZero) {
    char buffer[] = "########";
    relaxed::storeText(buffer, "abc");
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string("abc\0####\0", 9));
}

TEST(StoreText, TruncatesTextThatDoesNotFit) {
    char buffer[4] = {};
    relaxed::storeText(buffer, "abc");
    EXPECT_STREQ(buffer, "abc");
    relaxed::storeText(buffer, "defgh");
    EXPECT_STREQ(buffer, "def");
}

TEST(StoreText, MayRunInSeveralThreads) {
    char buffer[10] = {};
    const auto write = [&] {
        for (int i = 0; i < 500; ++i) {
            relaxed::storeText(buffer, "07.01.00");
        }
    };
    std::thread other(write);
    write();
    other.join();
    EXPECT_STREQ(buffer, "07.01.00");
}

} // namespace
