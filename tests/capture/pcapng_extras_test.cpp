#include "capture_builder.h"

#include "capture/pcapng_extras.h"
#include "capture/pcapng_format.h"

#include <gtest/gtest.h>

namespace capture {
namespace {

TEST(PcapngExtrasTest, FindsRemarksAndCommentsBetweenPackets) {
    Recording recording;
    recording.remark({{"type", "start"}});
    recording.submit(1, TransferType::bulk, 0x02, {1}, 1);
    recording.complete(1, TransferType::bulk, 0x02, 0, {}, 1, redactedComment);
    recording.remark({{"type", "open"}});
    const Extras extras = readExtras(recording.file);
    ASSERT_EQ(extras.remarks.size(), 2U);
    EXPECT_EQ(extras.remarks[0].packetsBefore, 0U);
    EXPECT_EQ(extras.remarks[1].packetsBefore, 2U);
    EXPECT_EQ(extras.remarks[1].time, recording.time);
    EXPECT_EQ(extras.remarks[1].value["type"], "open");
    ASSERT_EQ(extras.comments.size(), 1U);
    EXPECT_EQ(extras.comments[0].packet, 1U);
    EXPECT_EQ(extras.comments[0].text, redactedComment);
}

TEST(PcapngExtrasTest, EndsAtABlockThatIsNotWhole) {
    Recording recording;
    recording.remark({{"type", "open"}}).remark({{"type", "close"}});
    recording.file.pop_back();
    EXPECT_EQ(readExtras(recording.file).remarks.size(), 1U);
}

TEST(PcapngExtrasTest, TakesNobodyElsesOptionForItsOwn) {
    for (const auto& [number, mark] : {std::pair(pcapng::enterpriseNumber, std::string("other/1 ")),
                                       std::pair(pcapng::enterpriseNumber + 1, std::string("gvusb/1 "))}) {
        Recording recording;
        recording.remark({{"type", "open"}});
        auto at = std::search(recording.file.begin(), recording.file.end(), pcapng::remarkMark.begin(),
                              pcapng::remarkMark.end());
        ASSERT_NE(at, recording.file.end());
        std::copy(mark.begin(), mark.end(), at);
        std::memcpy(&*(at - 4), &number, sizeof number);
        EXPECT_TRUE(readExtras(recording.file).remarks.empty());
    }
}

TEST(PcapngExtrasTest, FindsNothingInOtherFiles) {
    EXPECT_TRUE(readExtras(Bytes{}).remarks.empty());
    EXPECT_TRUE(readExtras(Bytes(100, 0)).remarks.empty());
    EXPECT_TRUE(readExtras(Bytes{0x0A, 0x0D, 0x0D, 0x0A}).remarks.empty());
}

} // namespace
} // namespace capture
