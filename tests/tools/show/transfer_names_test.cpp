#include "show/transfer_names.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(TransferNamesTest, NamesErrors) {
    EXPECT_EQ(errorName(-EPIPE), "EPIPE");
    EXPECT_EQ(errorName(ENODEV), "ENODEV");
    EXPECT_EQ(errorName(-9999), "error 9999");
}

TEST(TransferNamesTest, NamesRequests) {
    EXPECT_EQ(requestName({0x80, 6, 0, 1, 0, 0, 18, 0}), "device descriptor");
    EXPECT_EQ(requestName({0x80, 6, 0, 2, 0, 0, 9, 0}), "configuration descriptor");
    EXPECT_EQ(requestName({0x80, 6, 5, 3, 9, 4, 255, 0}), "string 5");
    EXPECT_EQ(requestName({0x80, 6, 0, 3, 0, 0, 255, 0}), "languages of strings");
    EXPECT_EQ(requestName({0x80, 6, 0, 0x22, 0, 0, 9, 0}), "descriptor of type 22");
    EXPECT_EQ(requestName({0x00, 9, 1, 0, 0, 0, 0, 0}), "set configuration 1");
    EXPECT_EQ(requestName({0x01, 11, 2, 0, 1, 0, 0, 0}), "set interface 1, setting 2");
    EXPECT_EQ(requestName({0x02, 1, 0, 0, 0x81, 0, 0, 0}), "clear halt of 81");
    EXPECT_EQ(requestName({0x00, 1, 1, 0, 0, 0, 0, 0}), "clear feature");
    EXPECT_EQ(requestName({0x80, 0, 0, 0, 0, 0, 2, 0}), "get status");
    EXPECT_EQ(requestName({0x80, 99, 0, 0, 0, 0, 2, 0}), "standard request 63");
    EXPECT_EQ(requestName({0xC1, 7, 0, 0, 0, 0, 2, 0}), "vendor request 07");
    EXPECT_EQ(requestName({0xA1, 1, 0, 0, 0, 0, 2, 0}), "class request 01");
    EXPECT_EQ(setupText({0x80, 6, 1, 3, 9, 4, 255, 0}), "80 06 0301 0409 00FF");
}

TEST(TransferNamesTest, NamesPipes) {
    EXPECT_EQ(pipeText(capture::TransferType::bulk, 0x81), "bulk 81");
    EXPECT_EQ(pipeText(capture::TransferType::control, 0x80), "control");
}

TEST(TransferNamesTest, TellsFramesFromOtherRequests) {
    EXPECT_TRUE(isFrameRequest({0x40, 0, 0, 0, 0, 0, 5, 0}));
    EXPECT_TRUE(isFrameRequest({0xC0, 0, 0, 0, 0, 0, 5, 0}));
    EXPECT_FALSE(isFrameRequest({0xC1, 0, 0, 0, 0, 0, 5, 0}));
    EXPECT_FALSE(isFrameRequest({0x40, 1, 0, 0, 0, 0, 5, 0}));
    EXPECT_FALSE(isFrameRequest({0x40, 0, 0, 1, 0, 0, 5, 0}));
    EXPECT_FALSE(isFrameRequest({0x40, 0, 0, 0, 1, 0, 5, 0}));
    EXPECT_FALSE(isFrameRequest({0x80, 0, 0, 0, 0, 0, 2, 0}));
}

} // namespace
