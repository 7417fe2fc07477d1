#include "wrapped_text.h"

#include <gtest/gtest.h>

namespace {

TEST(WrappedTextTest, BreaksBetweenWordsAndIndents) {
    const std::string text =
        wrapped("Cause:  ", std::string(40, 'a') + " " + std::string(31, 'b') + " cc dd", 80);
    EXPECT_EQ(text, "Cause:  " + std::string(40, 'a') + " " + std::string(31, 'b') + "\n        cc dd\n");
}

TEST(WrappedTextTest, LeavesAWordThatIsTooLongWhole) {
    EXPECT_EQ(wrapped("", std::string(100, 'a') + " b", 80), std::string(100, 'a') + "\nb\n");
}

TEST(WrappedTextTest, KeepsToTheGivenWidth) {
    EXPECT_EQ(wrapped("ok  ", "aaaa bbbb cccc dddd eeee ffff gggg", 36),
              "ok  aaaa bbbb cccc dddd eeee ffff\n    gggg\n");
    // Below a label that is long for the width, the text has more room.
    EXPECT_EQ(wrapped("PROBLEM  a topic  ", "aaaa bbbb cccc dddd eeee", 36),
              "PROBLEM  a topic  aaaa bbbb cccc\n    dddd eeee\n");
    EXPECT_EQ(wrapped("a label of 25 characters   ", "aaaabbbbcccc dddd", 36),
              "a label of 25 characters\n    aaaabbbbcccc dddd\n");
}

TEST(WrappedTextTest, BreaksOnlyLinesThatAreTooLong) {
    EXPECT_EQ(
        rewrapped("Usage: a\n\nOptions:\n  --a  print all of them at once and more\n  -b   print\n", 39),
        "Usage: a\n\nOptions:\n  --a  print all of them at once and\n       more\n  -b   print\n");
    EXPECT_EQ(rewrapped("aaaa bbbb cccc dddd eeee ffff gggg hhhh\niiii jjjj\n\nkkkk\nllll\n", 36),
              "aaaa bbbb cccc dddd eeee ffff gggg\nhhhh iiii jjjj\n\nkkkk\nllll\n");
}

} // namespace
