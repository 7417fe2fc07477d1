#include "hexadecimal.h"

#include <gtest/gtest.h>

namespace {

TEST(DeviceIdTest, IsParsedInAnyCaseWithOrWithoutPrefix) {
    for (const char* text : {"1a2b3c", "1A2B3C", "0x1A2b3c", "0X1a2B3C", "001A2B3C"}) {
        EXPECT_EQ(parseDeviceId(text), 0x1A2B3CU) << text;
    }
    EXPECT_EQ(parseDeviceId("0"), 0U);
    EXPECT_EQ(parseDeviceId("FFFFFFFF"), 0xFFFFFFFFU);
}

TEST(DeviceIdTest, IsRejectedUnlessTheWholeTextIsANumber) {
    for (const char* text : {"", "0x", "x", "1G", " 1", "1 ", "-1", "+1", "0x-1", "0x0x1", "123456789"}) {
        EXPECT_EQ(parseDeviceId(text), std::nullopt) << text;
    }
}

TEST(DeviceIdTest, IsWrittenAsTheLibraryDoes) {
    EXPECT_EQ(deviceIdText(0x1a2b), "1A2B");
    EXPECT_EQ(deviceIdText(0xFFFFFFFF), "FFFFFFFF");
    EXPECT_EQ(deviceIdText(0), "0");
}

TEST(FrameTest, IsParsedTogetherOrApart) {
    const Bytes wanted = {0x02, 0x00, 0x07, 0xFF};
    for (const char* text : {"020007FF", "02 00 07 ff", "0x02,0x00,0x07,0xFF", "02:00:07:ff", "0200-07FF",
                             "\t0200  07FF \r", "0X020007fF"}) {
        EXPECT_EQ(parseFrame(text), wanted) << text;
    }
}

TEST(FrameTest, IsRejectedWithHalfBytesOrAnythingElse) {
    for (const char* text :
         {"", " ", "0", "020", "02 0", "0x", "0x0", "02 xx", "02;03", "-", "+1", "0x02 00x7"}) {
        EXPECT_EQ(parseFrame(text), std::nullopt) << text;
    }
}

TEST(FrameTest, IsWrittenInUpperCase) {
    const Bytes frame = {0x02, 0xAB, 0x0F};
    EXPECT_EQ(frameText(frame), "02 AB 0F");
    EXPECT_EQ(frameText(frame, ""), "02AB0F");
    EXPECT_EQ(frameText({}), "");
}

} // namespace
