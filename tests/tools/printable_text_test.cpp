#include "printable_text.h"

#include <gtest/gtest.h>

namespace {

TEST(PrintableTextTest, ControlCharactersBecomeQuestionMarks) {
    EXPECT_EQ(printable("a\033[2Jb\n\177 c"), "a?[2Jb?? c");
}

TEST(PrintableTextTest, CharactersOutsideAsciiArePrintedAsQuestionMarks) {
    EXPECT_EQ(asPrinted("Z\u00FCrich \u20AC"), "Z?rich ?");
    EXPECT_EQ(asPrinted("a\U0001F600b"), "a??b");
    EXPECT_EQ(asPrinted("plain?\n"), "plain??");
}

} // namespace
