#include "wrapped_text.h"

#include <gtest/gtest.h>

namespace {

TEST(WrappedTextTest, BreaksBetweenWordsAndIndents) {
    const std::string text =
        wrapped("Cause:  ", std::string(40, 'a') + " " + std::string(31, 'b') + " cc dd");
    EXPECT_EQ(text, "Cause:  " + std::string(40, 'a') + " " + std::string(31, 'b') + "\n        cc dd\n");
}

TEST(WrappedTextTest, LeavesAWordThatIsTooLongWhole) {
    EXPECT_EQ(wrapped("", std::string(100, 'a') + " b"), std::string(100, 'a') + "\nb\n");
}

} // namespace
