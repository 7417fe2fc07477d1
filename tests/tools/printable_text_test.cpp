#include "printable_text.h"

#include <gtest/gtest.h>

namespace {

TEST(PrintableTextTest, ControlCharactersBecomeQuestionMarks) {
    EXPECT_EQ(printable("a\033[2Jb\n\177 c"), "a?[2Jb?? c");
}

} // namespace
