#include "model/descriptors.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

namespace emulator {
namespace {

ReaderDescription described(std::string_view line) {
    return parseReaders(line).front();
}

TEST(DescriptorsTest, DeviceNamesItsMakerProductAndStrings) {
    EXPECT_EQ(deviceDescriptor(described("vendor=0x1234,product=0x0002,release=0x0203")),
              (Bytes{18, 1, 0x10, 0x01, 0, 0, 0, 64, 0x34, 0x12, 0x02, 0x00, 0x03, 0x02, 3, 5, 1, 1}));
    EXPECT_EQ(deviceDescriptor(described("vendor=0x1234,speed=high,missing=1+3+5,configuration=none")),
              (Bytes{18, 1, 0x00, 0x02, 0, 0, 0, 64, 0x34, 0x12, 0x01, 0x00, 0x00, 0x01, 0, 0, 0, 0}));
}

TEST(DescriptorsTest, ConfigurationHoldsInterfaceAndEndpoints) {
    EXPECT_EQ(configurationDescriptor(described("endpoints=0x81+0x02:bulk:16,configuration=3"), 0),
              (Bytes{9, 2, 32,   0, 1,  3,    0, 0x80, 50, //
                     9, 4, 0,    0, 2,  0xFF, 0, 0,    6,  //
                     7, 5, 0x81, 2, 64, 0,    0, 7,    5,  0x02, 2, 16, 0, 0}));
}

TEST(DescriptorsTest, ConfigurationMayHaveNoInterfaceOrSeveral) {
    EXPECT_EQ(configurationDescriptor(described("interfaces=0"), 0), (Bytes{9, 2, 9, 0, 0, 1, 0, 0x80, 50}));
    const Bytes two = configurationDescriptor(described("interfaces=2,first-interface=1,endpoints=none"), 0);
    EXPECT_EQ(two, (Bytes{9,    2, 27, 0, 2, 1, 0, 0x80, 50, 9,    4, 1, 0, 0,
                          0xFF, 0, 0,  6, 9, 4, 2, 0,    0,  0xFF, 0, 0, 6}));
}

TEST(DescriptorsTest, AllDescriptorsAreDeviceThenEachConfiguration) {
    const ReaderDescription reader = described("configuration=2+1");
    Bytes wanted = deviceDescriptor(reader);
    for (std::size_t i = 0; i < 2; ++i) {
        const Bytes configuration = configurationDescriptor(reader, i);
        wanted.insert(wanted.end(), configuration.begin(), configuration.end());
    }
    EXPECT_EQ(allDescriptors(reader), wanted);
    EXPECT_EQ(configurationDescriptor(reader, 0)[5], 2);
    EXPECT_EQ(configurationDescriptor(reader, 1)[5], 1);
}

TEST(DescriptorsTest, GivenDescriptorsAreReturnedUnchanged) {
    EXPECT_EQ(allDescriptors(described("descriptors=12 01FF")), (Bytes{0x12, 0x01, 0xFF}));
    EXPECT_EQ(allDescriptors(described("descriptors=")), Bytes{});
}

TEST(DescriptorsTest, GivenConfigurationBeginsWhereTheTotalLengthsBeforeItSay) {
    Bytes given(18, 0x11);
    given.insert(given.end(), {4, 2, 5, 0, 0x33, 9, 2, 0, 1, 0x44});
    const Bytes device(18, 0x11);
    EXPECT_EQ(givenDescriptor(given, deviceType, 0), device);
    EXPECT_EQ(givenDescriptor(given, deviceType, 1), std::nullopt);
    EXPECT_EQ(givenDescriptor(given, configurationType, 0), Bytes(given.begin() + 18, given.end()));
    EXPECT_EQ(givenDescriptor(given, configurationType, 1), (Bytes{9, 2, 0, 1, 0x44}));
    EXPECT_EQ(givenDescriptor(given, configurationType, 2), std::nullopt);
    EXPECT_EQ(givenDescriptor(given, configurationType, 255), std::nullopt);
}

TEST(DescriptorsTest, GivenDescriptorsMayEndAnywhere) {
    const Bytes all = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 9, 2, 0, 0};
    for (std::size_t length = 0; length <= all.size(); ++length) {
        const Bytes given(all.data(), all.data() + length);
        const Bytes device(all.data(), all.data() + std::min<std::size_t>(length, 18));
        EXPECT_EQ(givenDescriptor(given, deviceType, 0), device) << length;
        const std::optional<Bytes> configuration = givenDescriptor(given, configurationType, 0);
        EXPECT_EQ(configuration.value_or(Bytes{}).size(), length - device.size()) << length;
        // A configuration with a total length of 0 repeats, so every index finds it.
        EXPECT_EQ(givenDescriptor(given, configurationType, 255).has_value(), length == all.size()) << length;
    }
}

TEST(DescriptorsTest, PacketSizeFollowsSpeed) {
    const Endpoint bulk = {.address = 0x81};
    EXPECT_EQ(packetSize(described("speed=low,endpoints=interrupt"), bulk), 8);
    EXPECT_EQ(packetSize(described("speed=full"), bulk), 64);
    EXPECT_EQ(packetSize(described("speed=high"), bulk), 512);
    EXPECT_EQ(packetSize(described("speed=high"), {.address = 0x81, .packetSize = 40}), 40);
}

TEST(DescriptorsTest, StringIsUtf16) {
    EXPECT_EQ(stringDescriptor("A1"), (Bytes{6, 3, 'A', 0, '1', 0}));
    EXPECT_EQ(stringDescriptor(""), (Bytes{2, 3}));
    EXPECT_EQ(stringDescriptor("\xC3\xA9\xE2\x82\xAC"), (Bytes{6, 3, 0xE9, 0x00, 0xAC, 0x20}));
    EXPECT_EQ(stringDescriptor("\xF0\x9F\x98\x80"), (Bytes{6, 3, 0x3D, 0xD8, 0x00, 0xDE}));
}

TEST(DescriptorsTest, StringKeepsBytesThatAreNotUtf8) {
    EXPECT_EQ(stringDescriptor("\xE9"), (Bytes{4, 3, 0xE9, 0}));
    EXPECT_EQ(stringDescriptor("\xC3(\xFF"), (Bytes{8, 3, 0xC3, 0, '(', 0, 0xFF, 0}));
}

TEST(DescriptorsTest, StringIsTruncatedToTheLongestDescriptor) {
    const Bytes bytes = stringDescriptor(std::string(200, 'x'));
    EXPECT_EQ(bytes.size(), 254U);
    EXPECT_EQ(bytes[0], 254);
}

} // namespace
} // namespace emulator
