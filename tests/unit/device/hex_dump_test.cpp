#include "device/hex_dump.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<unsigned char>;

// The dump, written to a buffer that is prefilled with a byte that does not occur in it.
std::string dump(const std::string& prefix, const Bytes& bytes) {
    HexDump text;
    std::memset(text, '~', sizeof text);
    dumpHex(text, prefix.c_str(), bytes);
    return text;
}

std::string hexadecimal(const Bytes& bytes) {
    std::string text;
    for (const unsigned char byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02X ", byte);
        text += digits;
    }
    return text;
}

TEST(HexDumpTest, WritesTwoUpperCaseDigitsAndABlankForEachByte) {
    EXPECT_EQ(dump("  5 Bytes >> ", {0x02, 0x00, 0x07, 0xFF, 0x01}), "  5 Bytes >> 02 00 07 FF 01 ");
    EXPECT_EQ(dump("", {0x0A}), "0A ");
    EXPECT_EQ(dump("", {0xAB, 0xCD, 0xEF}), "AB CD EF ");
}

TEST(HexDumpTest, WritesEveryByteValue) {
    Bytes all(256);
    for (std::size_t i = 0; i < all.size(); ++i) {
        all[i] = static_cast<unsigned char>(i);
    }
    EXPECT_EQ(dump("x", all), "x" + hexadecimal(all));
}

TEST(HexDumpTest, WithoutBytesOnlyThePrefixIsWritten) {
    EXPECT_EQ(dump("", {}), "");
    EXPECT_EQ(dump("    Bytes << ", {}), "    Bytes << ");
    EXPECT_EQ(dump(std::string(4000, 'p'), {}), std::string(4000, 'p'));
}

// A byte is written if its position is below 4092, for any length of the prefix.
TEST(HexDumpTest, StopsAtPosition4092) {
    const Bytes bytes(5000, 0x5A);
    for (std::size_t length = 0; length <= 4092; ++length) {
        const std::size_t shown = (4092 - length + 2) / 3;
        const std::string prefix(length, 'p');
        const std::string text = dump(prefix, bytes);
        ASSERT_EQ(text.size(), length + 3 * shown) << length;
        ASSERT_EQ(text, prefix + hexadecimal(Bytes(shown, 0x5A))) << length;
    }
}

TEST(HexDumpTest, ShowsEveryByteUpToTheLimit) {
    const std::string prefix = "1359 Bytes >> "; // 14 characters
    for (const std::size_t count : {1358u, 1359u, 1360u, 1361u}) {
        const std::string text = dump(prefix, Bytes(count, 0xC3));
        EXPECT_EQ(text, prefix + hexadecimal(Bytes(std::min<std::size_t>(count, 1360), 0xC3))) << count;
    }
}

TEST(HexDumpTest, PrefixesNearTheLimit) {
    const Bytes bytes = {0x01, 0x02, 0x03};
    EXPECT_EQ(dump(std::string(4086, 'p'), bytes), std::string(4086, 'p') + "01 02 ");
    EXPECT_EQ(dump(std::string(4089, 'p'), bytes), std::string(4089, 'p') + "01 ");
    EXPECT_EQ(dump(std::string(4090, 'p'), bytes), std::string(4090, 'p') + "01 ");
    EXPECT_EQ(dump(std::string(4091, 'p'), bytes), std::string(4091, 'p') + "01 ");
    for (const std::size_t length : {4092u, 4093u, 4094u, 4095u}) {
        EXPECT_EQ(dump(std::string(length, 'p'), bytes), std::string(length, 'p')) << length;
    }
}

TEST(HexDumpTest, LongerPrefixesAreTruncatedTo4095Characters) {
    for (const std::size_t length : {4096u, 4097u, 5000u, 100000u}) {
        EXPECT_EQ(dump(std::string(length, 'p'), {0x01}), std::string(4095, 'p')) << length;
    }
}

TEST(HexDumpTest, NothingIsWrittenAfterTheTerminatingZero) {
    for (const std::size_t prefixLength : {0u, 13u, 4090u, 4091u, 4095u}) {
        HexDump text;
        std::memset(text, '~', sizeof text);
        const std::string prefix(prefixLength, 'p');
        dumpHex(text, prefix.c_str(), Bytes{0x01, 0x02});
        const std::size_t end = std::strlen(text);
        ASSERT_LT(end, sizeof text);
        EXPECT_TRUE(std::all_of(text + end + 1, text + sizeof text, [](char c) { return c == '~'; }))
            << prefixLength;
    }
}

} // namespace
