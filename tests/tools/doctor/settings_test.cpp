#include "doctor/settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Each mistake as "LINE: TEXT".
std::vector<std::string> mistakes(std::string_view text) {
    std::vector<std::string> all;
    for (const SettingMistake& mistake : findSettingMistakes(text)) {
        EXPECT_NE(mistake.remedy, "") << mistake.text;
        all.push_back(std::to_string(mistake.line) + ": " + mistake.text);
    }
    return all;
}

TEST(SettingMistakesTest, AreNotFoundInValidSettings) {
    for (const char* text :
         {"", "\n\n", "gvusb_hotplug=0", "gvusb_debuglevel=0 gvusb_hotplug=2\r\n",
          "gvusb_updaterate=20 nopnp", "libusb_debuglevel=4,gvusb_hotplug=1;gvusb_updaterate= 50",
          "# gvusb_hotplug = 0\n; a comment", "empty, more or less", "no pnp"}) {
        EXPECT_THAT(mistakes(text), IsEmpty()) << text;
    }
}

TEST(SettingMistakesTest, AreUnknownSettings) {
    EXPECT_THAT(mistakes("gvusb_hotplug=1\nfoo=bar"),
                ElementsAre("2: 'foo=bar' is not a setting of the library"));
    EXPECT_THAT(mistakes("foo = bar"), ElementsAre("1: 'foo =' is not a setting of the library"));
    EXPECT_THAT(mistakes("gvusb_level=1 gvusb_debuglevel=1"),
                ElementsAre("1: 'gvusb_level=1' is not a setting of the library"));
}

TEST(SettingMistakesTest, AreBlanksAndCapitals) {
    EXPECT_THAT(mistakes("gvusb_hotplug = 0"), ElementsAre("1: 'gvusb_hotplug =' is ignored"));
    EXPECT_THAT(mistakes("gvusb_hotplug =0"), ElementsAre("1: 'gvusb_hotplug =0' is ignored"));
    EXPECT_THAT(mistakes("GVUSB_HotPlug=0"), ElementsAre("1: 'GVUSB_HotPlug=0' is ignored"));
    EXPECT_THAT(mistakes("gvusb_updaterate 20"), ElementsAre("1: 'gvusb_updaterate' is ignored"));
}

TEST(SettingMistakesTest, AreCommentsThatCount) {
    EXPECT_THAT(mistakes("\n  # gvusb_debuglevel=2"),
                ElementsAre("2: 'gvusb_debuglevel=' counts although the line looks like a comment"));
    EXPECT_THAT(mistakes("; nopnp"), ElementsAre("1: 'nopnp' counts although the line looks like a comment"));
    // Only the first occurrence counts.
    EXPECT_THAT(mistakes("gvusb_debuglevel=1\n# gvusb_debuglevel=2"), IsEmpty());
}

TEST(SettingMistakesTest, AreSettingsThatAnEarlierOneReplaces) {
    EXPECT_THAT(mistakes("# gvusb_debuglevel=2\n\ngvusb_debuglevel=1"),
                ElementsAre("1: 'gvusb_debuglevel=' counts although the line looks like a comment",
                            "3: 'gvusb_debuglevel=' is ignored, because line 1 sets it first"));
}

TEST(SettingMistakesTest, AreValuesThatAreNotNumbers) {
    EXPECT_THAT(mistakes("gvusb_debuglevel=high"),
                ElementsAre("1: 'gvusb_debuglevel=' is ignored, because no number follows"));
    for (const char* text :
         {"gvusb_hotplug= 0", "gvusb_hotplug=on", "gvusb_hotplug=3", "gvusb_hotplug=10", "gvusb_hotplug="}) {
        EXPECT_THAT(
            mistakes(text),
            ElementsAre("1: 'gvusb_hotplug=' is not followed by 0, 1 or 2, so readers may not be reported"))
            << text;
    }
}

TEST(SettingMistakesTest, EndWhereTheLibraryStopsReading) {
    using namespace std::string_view_literals;
    EXPECT_THAT(mistakes("gvusb_hotplug=1\n\0foo=bar"sv), IsEmpty());
}

} // namespace
