#include "show/plot.h"
#include "show/sample_recordings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

std::string scriptOf(const SampleRecording& made) {
    const Conversation conversation = conversationOf(capture::readCapture(made.file, "test"));
    return plotScript(conversation, std::vector<bool>(conversation.readers.readers.size(), true), "it's");
}

TEST(PlotTest, KeepsFewBoxesAsTheyAre) {
    const std::vector<PlotBox> boxes = {{.begin = 0, .end = 1, .duration = 1},
                                        {.begin = 0.1, .end = 2, .duration = 1.9}};
    EXPECT_EQ(merged(boxes, 10, 2).size(), 2U);
}

TEST(PlotTest, MergesBoxesOfTheSameColumn) {
    const std::vector<PlotBox> boxes = {{.begin = 0, .end = 1, .duration = 1},
                                        {.begin = 1, .end = 4, .duration = 3},
                                        {.begin = 2, .end = 3, .duration = 1},
                                        {.begin = 9, .end = 10, .duration = 1}};
    const std::vector<PlotBox> result = merged(boxes, 10, 2);
    ASSERT_EQ(result.size(), 2U);
    EXPECT_EQ(result[0].begin, 0);
    EXPECT_EQ(result[0].end, 4);
    EXPECT_EQ(result[0].duration, 3);
    EXPECT_EQ(result[1].begin, 9);
}

TEST(PlotTest, QuotesTexts) {
    EXPECT_EQ(gnuplotString("a'b`c\\n\n"), "'a''b`c\\n?'");
}

TEST(PlotTest, DrawsALaneForEachReaderAndEachKindOfEnd) {
    const std::string script = scriptOf(sampleSession());
    for (const char* part : {"'A1'.\"\\n\".'usb:1-1' 1.5", "'B2'.\"\\n\".'usb:1-2.3' 0.5", "'answered'",
                             "'no answer read'", "'time-out'", "'other failure'", "'frame without a request'",
                             "'reader absent'", "set title 'it''s'", "(s)'"}) {
        EXPECT_THAT(script, HasSubstr(part));
    }
}

TEST(PlotTest, ShowsOnlyWhatIsThere) {
    SampleRecording made;
    made.identify(2, "1-1", "A1", "Desk", "Desk reader");
    EXPECT_THAT(scriptOf(made), HasSubstr("plot NaN notitle"));
    made.out(2, {1});
    made.in(2, {1});
    const std::string script = scriptOf(made);
    EXPECT_THAT(script, HasSubstr("'answered'"));
    EXPECT_THAT(script, Not(HasSubstr("'time-out'")));
    EXPECT_THAT(script, HasSubstr("(ms)'"));
}

} // namespace
