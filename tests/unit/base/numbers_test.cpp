#include "base/numbers.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace {

constexpr auto highestInt = std::numeric_limits<int>::max();
constexpr auto lowestInt = std::numeric_limits<int>::min();
constexpr auto highestUnsigned = std::numeric_limits<std::uint32_t>::max();

template <class Number>
struct Row {
    const char* text;
    std::optional<Number> number;
};

TEST(LeadingNumber, ReadsASignedDecimalNumber) {
    const Row<int> rows[] = {
        {"0", 0},
        {"300", 300},
        {"-3", -3},
        {"+7", 7},
        {"007", 7},
        {" \t\n42", 42},
        {"250ms", 250},
        {"12 13", 12},
        {"1.9", 1},
        {"0x10", 0},
        {"", std::nullopt},
        {"abc", std::nullopt},
        {"-", std::nullopt},
        {"- 3", std::nullopt},
        {"+-3", std::nullopt},
    };
    for (const auto& [text, number] : rows) {
        EXPECT_EQ(leadingNumber<int>(text), number) << '"' << text << '"';
    }
}

TEST(LeadingNumber, SaturatesAtTheLimitsOfInt) {
    const Row<int> rows[] = {
        {"2147483647", highestInt}, {"2147483648", highestInt},
        {"4294967296", highestInt}, {"99999999999999999999999", highestInt},
        {"-2147483648", lowestInt}, {"-2147483649", lowestInt},
        {"-4294967295", lowestInt}, {"-99999999999999999999999", lowestInt},
    };
    for (const auto& [text, number] : rows) {
        EXPECT_EQ(leadingNumber<int>(text), number) << text;
    }
}

TEST(LeadingNumber, SaturatesAtTheLimitsOfUnsigned) {
    const Row<std::uint32_t> rows[] = {
        {"4294967295", highestUnsigned},
        {"4294967296", highestUnsigned},
        {"99999999999999999999999", highestUnsigned},
        {"-1", 0},
        {"-99999999999999999999999", 0},
    };
    for (const auto& [text, number] : rows) {
        EXPECT_EQ(leadingNumber<std::uint32_t>(text), number) << text;
    }
}

TEST(UnsignedNumber, ReadsLikeTheUnsignedDecimalConversion) {
    const Row<std::uint32_t> rows[] = {
        {"0", 0},
        {"9", 9},
        {"10", 10},
        {"250000ms", 250000},
        {"  77", 77},
        {"+5", 5},
        {"1 2", 1},
        {"", std::nullopt},
        {"abc", std::nullopt},
        {"   ", std::nullopt},
        {"-", std::nullopt},
    };
    for (const auto& [text, number] : rows) {
        EXPECT_EQ(unsignedNumber(text), number) << '"' << text << '"';
    }
}

TEST(UnsignedNumber, SaturatesAtTheLargestNumber) {
    for (const char* text : {"4294967295", "4294967296", "4294967306", "18446744073709551615",
                             "18446744073709551626", "99999999999999999999999"}) {
        EXPECT_EQ(unsignedNumber(text), highestUnsigned) << text;
    }
}

// The conversion negates an unsigned long, and then truncates the result to 32 bits.
TEST(UnsignedNumber, SignWrapsAroundTheWidthOfAnUnsignedLong) {
    constexpr bool narrow = std::numeric_limits<unsigned long>::digits == 32;
    const Row<std::uint32_t> rows[] = {
        {"-0", 0},
        {"-1", highestUnsigned},
        {"-5", narrow ? 4294967291 : highestUnsigned},
        {"-4294967290", narrow ? 6 : highestUnsigned},
        {"-4294967296", highestUnsigned},
        {"-18446744073709551606", narrow ? highestUnsigned : 10},
        {"-99999999999999999999999", highestUnsigned},
    };
    for (const auto& [text, number] : rows) {
        EXPECT_EQ(unsignedNumber(text), number) << text;
    }
}

TEST(HexadecimalNumber, ReadsLikeTheHexadecimalConversion) {
    const Row<std::uint32_t> rows[] = {
        {"1A2B3C", 0x1A2B3C},
        {"1a2b3c", 0x1A2B3C},
        {"0x12AB0", 0x12AB0},
        {"0X12AB0", 0x12AB0},
        {"  ff", 0xFF},
        {"ffG1", 0xFF},
        {"0", 0},
        {"FFFFFFFF", highestUnsigned},
        {"", std::nullopt},
        {"xyz", std::nullopt},
    };
    for (const auto& [text, number] : rows) {
        EXPECT_EQ(hexadecimalNumber(text), number) << '"' << text << '"';
    }
}

TEST(HexadecimalNumber, DoesNotReadPastTheEndOfItsText) {
    const char field[] = {'1', '2', '3', '4'};
    EXPECT_EQ(hexadecimalNumber({field, 3}), 0x123u);
}

template <class Number>
std::string written(Number number) {
    char text[16] = {};
    writeDecimal(text, number);
    return text;
}

TEST(WriteDecimal, WritesLikeTheDecimalConversions) {
    EXPECT_EQ(written(0), "0");
    EXPECT_EQ(written(1000U), "1000");
    EXPECT_EQ(written(highestUnsigned), "4294967295");
    EXPECT_EQ(written(highestInt), "2147483647");
    EXPECT_EQ(written(lowestInt), "-2147483648");
}

TEST(WriteDecimal, WritesNothingAfterTheTerminatingZero) {
    char text[] = "########";
    writeDecimal(text, 1000U);
    EXPECT_EQ(std::string(text, sizeof text), std::string("1000\0###", 9));
}

} // namespace
