#include "model/text.h"

#include <gtest/gtest.h>

namespace emulator {
namespace {

TEST(TextTest, TrimsBlanksAtBothEnds) {
    EXPECT_EQ(trimmed(" \ta b\r\n"), "a b");
    EXPECT_EQ(trimmed("  "), "");
}

TEST(TextTest, SkipsAByteOrderMark) {
    EXPECT_EQ(withoutByteOrderMark("\xEF\xBB\xBFid"), "id");
    EXPECT_EQ(withoutByteOrderMark("id\xEF\xBB\xBF"), "id\xEF\xBB\xBF");
    EXPECT_EQ(withoutByteOrderMark(""), "");
}

TEST(TextTest, SplitsAtSeparatorsThatAreNotEscaped) {
    EXPECT_EQ(splitEscaped("a,,b\\,c\\\\,", ','), (std::vector<std::string>{"a", "", "b,c\\", ""}));
    EXPECT_EQ(splitEscaped("", ','), std::vector<std::string>{""});
}

TEST(TextTest, TakesWordsOneByOne) {
    std::string_view text = "  one two  three ";
    EXPECT_EQ(takeWord(text), "one");
    EXPECT_EQ(text, "two  three");
    EXPECT_EQ(takeWord(text), "two");
    EXPECT_EQ(takeWord(text), "three");
    EXPECT_EQ(takeWord(text), "");
}

TEST(TextTest, ReadsDecimalAndHexadecimalNumbersWithinBounds) {
    EXPECT_EQ(number("n", "10", 0, 10), 10U);
    EXPECT_EQ(number("n", "0x1F", 0, 255), 31U);
    for (const char* wrong : {"", "0x", "-1", "+1", "1 ", "1x", "11", "99999999999999999999", "0xG"}) {
        EXPECT_THROW(number("n", wrong, 0, 10), TextError) << wrong;
    }
}

TEST(TextTest, NamesWhatIsWrongWithANumber) {
    try {
        number("packet size", "many", 1, 1024);
        FAIL();
    } catch (const TextError& error) {
        EXPECT_STREQ(error.what(), "packet size must be a number from 1 to 1024, not 'many'");
    }
}

TEST(TextTest, ReadsAndWritesHexadecimalBytes) {
    EXPECT_EQ(hexBytes("b", "01 ff\tA0b1"), (Bytes{0x01, 0xFF, 0xA0, 0xB1}));
    EXPECT_EQ(hexBytes("b", ""), Bytes{});
    for (const char* wrong : {"1", "0 1", "0x01", "012"}) {
        EXPECT_THROW(hexBytes("b", wrong), TextError) << wrong;
    }
    EXPECT_EQ(hexText(Bytes{0x01, 0xFF, 0xA0}), "01ffa0");
}

} // namespace
} // namespace emulator
