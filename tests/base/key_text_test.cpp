#include "base/key_text.h"

#include "turkish_letters.h"

#include <string>

#include <gtest/gtest.h>

namespace {

std::string upper(const std::string& text) {
    std::string buffer(text.size() + 1, '#');
    g_ToUpperString(text.c_str(), buffer.data());
    EXPECT_EQ(buffer.back(), '\0');
    buffer.pop_back();
    return buffer;
}

TEST(ToUpperString, RaisesLettersAndLeavesTheRest) {
    EXPECT_EQ(upper("hotplug-Mode"), "HOTPLUG-MODE");
    EXPECT_EQ(upper("tesk-rci2"), "TESK-RCI2");
    EXPECT_EQ(upper("abcdefghijklmnopqrstuvwxyz"), "ABCDEFGHIJKLMNOPQRSTUVWXYZ");
    EXPECT_EQ(upper("@[`{09 _\t"), "@[`{09 _\t");
    EXPECT_EQ(upper(""), "");
}

TEST(ToUpperString, LeavesBytesBeyondAsciiAsTheyAre) {
    std::string bytes;
    for (int byte = 0x80; byte <= 0xFF; ++byte) {
        bytes += static_cast<char>(byte);
    }
    EXPECT_EQ(upper(bytes), bytes);
}

TEST(ToUpperString, WritesNothingBehindTheTerminatingZero) {
    char buffer[] = "########";
    g_ToUpperString("abc", buffer);
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string("ABC\0####\0", 9));
}

TEST(ToUpperString, ConvertsInPlace) {
    char text[] = "timeout";
    g_ToUpperString(text, text);
    EXPECT_STREQ(text, "TIMEOUT");
}

TEST(ToUpperString, DoesNotDependOnTheProcessLocale) {
    const TurkishLetters turkish;
    EXPECT_EQ(upper("timeout \xFD"), "TIMEOUT \xFD");
}

TEST(UpperKey, EqualsAKnownKeyWhateverItsCase) {
    for (const char* key : {"TIMEOUT", "timeout", "TimeOut"}) {
        EXPECT_TRUE(UpperKey(key) == "TIMEOUT") << key;
    }
}

TEST(UpperKey, IsComparedWhole) {
    for (const char* key : {"TIMEOU", "TIMEOUTS", " TIMEOUT", "TIMEOUT ", "TIME-OUT", ""}) {
        EXPECT_FALSE(UpperKey(key) == "TIMEOUT") << key;
    }
}

TEST(UpperKey, HoldsUpTo127Characters) {
    EXPECT_TRUE(UpperKey(std::string(127, 'k').c_str()) == std::string(127, 'K'));
}

TEST(UpperKey, EqualsNothingWhenItIsLonger) {
    for (const std::size_t length : {128u, 129u, 100'000u}) {
        const std::string key(length, 'k');
        const UpperKey upperKey(key.c_str());
        EXPECT_FALSE(upperKey == std::string(length, 'K')) << length;
        EXPECT_FALSE(upperKey == std::string(127, 'K')) << length;
    }
}

} // namespace
