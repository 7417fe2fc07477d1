#include "base/key_text.h"

#include "edge_buffer.h"
#include "turkish_letters.h"

#include <cstring>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace {

std::string upper(const std::string& text) {
    std::string buffer(text.size() + 1, '#');
    g_ToUpperString(text.c_str(), buffer.data());
    EXPECT_EQ(buffer.back(), '\0');
    buffer.pop_back();
    return buffer;
}

TEST(ToUpperString, ConvertsOnlyLetters) {
    EXPECT_EQ(upper("hotplug-Mode"), "HOTPLUG-MODE");
    EXPECT_EQ(upper("tesk-rci2"), "TESK-RCI2");
    EXPECT_EQ(upper("abcdefghijklmnopqrstuvwxyz"), "ABCDEFGHIJKLMNOPQRSTUVWXYZ");
    EXPECT_EQ(upper("@[`{09 _\t"), "@[`{09 _\t");
    EXPECT_EQ(upper(""), "");
}

TEST(ToUpperString, KeepsNonAsciiBytesInTheCLocale) {
    std::string bytes;
    for (int byte = 0x80; byte <= 0xFF; ++byte) {
        bytes += static_cast<char>(byte);
    }
    EXPECT_EQ(upper(bytes), bytes);
}

TEST(ToUpperString, WritesNothingAfterTheTerminatingZero) {
    char buffer[] = "########";
    g_ToUpperString("abc", buffer);
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string("ABC\0####\0", 9));
}

TEST(ToUpperString, ConvertsInPlace) {
    char text[] = "timeout";
    g_ToUpperString(text, text);
    EXPECT_STREQ(text, "TIMEOUT");
}

TEST(ToUpperString, FollowsTheProcessLocale) {
    const TurkishLetters turkish;
    EXPECT_EQ(upper("timeout \xFD"), "T\xDDMEOUT I");
}

TEST(IsKey, IgnoresTheCase) {
    for (const char* text : {"TIMEOUT", "timeout", "TimeOut", "TIMEOUt", "tIMEOUT"}) {
        EXPECT_TRUE(isKey(text, "TIMEOUT")) << text;
    }
    EXPECT_TRUE(isKey("tesk-rci2", "TESK-RCI2"));
}

TEST(IsKey, ComparesWholeTexts) {
    for (const char* text :
         {"TIMEOU", "TIMEOUTS", "timeou", "timeouts", " TIMEOUT", "TIMEOUT ", "TIME-OUT", "T", ""}) {
        EXPECT_FALSE(isKey(text, "TIMEOUT")) << text;
    }
}

TEST(IsKey, DistinguishesLettersFromAdjacentCharacters) {
    EXPECT_FALSE(isKey("TIMEOU`", "TIMEOU@"));
    EXPECT_FALSE(isKey("{", "["));
}

TEST(IsKey, DoesNotReadPastTheEndOfTheText) {
    for (const char* text : {"TIM", "tim", ""}) {
        support::EdgeBuffer buffer(std::string_view(text, std::strlen(text) + 1));
        EXPECT_FALSE(isKey(buffer.text(), "TIMEOUT")) << text;
    }
}

TEST(IsKey, RejectsTextOfAnyLength) {
    for (const std::size_t length : {127U, 128U, 129U, 100'000U}) {
        EXPECT_FALSE(isKey(std::string(length, 'T').c_str(), "TIMEOUT")) << length;
    }
}

TEST(IsKey, DoesNotDependOnTheProcessLocale) {
    const TurkishLetters turkish;
    EXPECT_TRUE(isKey("timeout", "TIMEOUT"));
}

} // namespace
