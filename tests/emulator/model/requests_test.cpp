#include "model/descriptors.h"
#include "model/model.h"

#include <gtest/gtest.h>

namespace emulator {
namespace {

class ReaderRequestsTest : public testing::Test {
protected:
    Completion request(ControlSetup setup, Bytes data = {}) {
        const std::size_t capacity = setup.in() ? setup.length : 0;
        reader.submit({.endpoint = 0, .setup = setup, .data = std::move(data), .capacity = capacity}, Time{});
        const auto completion = reader.takeCompletion();
        EXPECT_TRUE(completion.has_value());
        return completion.value_or(Completion{.outcome = Outcome::gone});
    }
    void expectAnswer(ControlSetup setup, const Bytes& data) {
        const Completion completion = request(setup);
        EXPECT_EQ(completion.outcome, Outcome::done);
        EXPECT_EQ(completion.data, data);
        EXPECT_EQ(completion.actual, data.size());
    }
    void expectStall(ControlSetup setup) { EXPECT_EQ(request(setup).outcome, Outcome::stalled); }

    ReaderModel reader{defaultReaders().front()};
};

TEST_F(ReaderRequestsTest, TruncatesDescriptorsToTheRequestedLength) {
    const Bytes device = deviceDescriptor(reader.description());
    expectAnswer({0x80, 6, 0x0100, 0, 18}, device);
    expectAnswer({0x80, 6, 0x0100, 0, 8}, Bytes(device.begin(), device.begin() + 8));
    expectAnswer({0x80, 6, 0x0200, 0, 255}, configurationDescriptor(reader.description(), 0));
    expectAnswer({0x80, 6, 0x0300, 0, 255}, {4, 3, 9, 4});
    expectAnswer({0x80, 6, 0x0301, 0x0409, 255}, stringDescriptor("1A2B3C"));
}

TEST_F(ReaderRequestsTest, StallsMissingDescriptors) {
    expectStall({0x80, 6, 0x0201, 0, 255});
    expectStall({0x80, 6, 0x0309, 0x0409, 255});
    expectStall({0x80, 6, 0x0600, 0, 10});
    for (const std::uint8_t index : std::initializer_list<std::uint8_t>{1, 3, 5, 6, 10}) {
        reader.setString(index, std::nullopt);
    }
    expectStall({0x80, 6, 0x0300, 0, 255});
}

TEST_F(ReaderRequestsTest, ReturnsGivenDescriptorsInsteadOfItsOwn) {
    Bytes given = deviceDescriptor(reader.description());
    given[17] = 9;
    const Bytes device = given;
    given.insert(given.end(), {9, 2, 0xFF, 0xFF, 3});
    reader.setDescriptors(given);
    expectAnswer({0x80, 6, 0x0100, 0, 18}, device);
    expectAnswer({0x80, 6, 0x0200, 0, 255}, {9, 2, 0xFF, 0xFF, 3});
    expectStall({0x80, 6, 0x0201, 0, 255});
    expectAnswer({0x80, 6, 0x0301, 0x0409, 255}, stringDescriptor("1A2B3C"));
}

TEST_F(ReaderRequestsTest, StallsUnreadableStringsOnly) {
    reader.requestFaults().unreadableStrings = {3};
    expectStall({0x80, 6, 0x0303, 0x0409, 255});
    expectAnswer({0x80, 6, 0x0301, 0x0409, 255}, stringDescriptor("1A2B3C"));
}

TEST_F(ReaderRequestsTest, SetsAndReturnsConfiguration) {
    expectAnswer({0x80, 8, 0, 0, 1}, {1});
    EXPECT_EQ(request({0x00, 9, 0, 0, 0}).outcome, Outcome::done);
    expectAnswer({0x80, 8, 0, 0, 1}, {0});
    expectStall({0x00, 9, 5, 0, 0});
}

TEST_F(ReaderRequestsTest, KnowsOneAlternateSetting) {
    expectAnswer({0x81, 10, 0, 0, 1}, {0});
    EXPECT_EQ(request({0x01, 11, 0, 0, 0}).outcome, Outcome::done);
    expectStall({0x01, 11, 1, 0, 0});
}

TEST_F(ReaderRequestsTest, ChoosingTheAlternateSettingClearsTheInterfacesHalts) {
    reader.setPipeFaults(pipeOf(0x81), {.stalled = true}, Time{});
    EXPECT_EQ(request({0x01, 11, 0, 3, 0}).outcome, Outcome::done);
    expectAnswer({0x82, 0, 0, 0x81, 2}, {1, 0});
    EXPECT_EQ(request({0x01, 11, 0, 0, 0}).outcome, Outcome::done);
    expectAnswer({0x82, 0, 0, 0x81, 2}, {0, 0});
}

TEST_F(ReaderRequestsTest, SetsReportsAndClearsHalt) {
    expectAnswer({0x82, 0, 0, 0x81, 2}, {0, 0});
    EXPECT_EQ(request({0x02, 3, 0, 0x81, 0}).outcome, Outcome::done);
    expectAnswer({0x82, 0, 0, 0x81, 2}, {1, 0});
    EXPECT_EQ(request({0x02, 1, 0, 0x81, 0}).outcome, Outcome::done);
    expectAnswer({0x82, 0, 0, 0x81, 2}, {0, 0});
    expectStall({0x02, 1, 0, 0x85, 0});
}

TEST_F(ReaderRequestsTest, StallsMalformedFrameRequests) {
    expectStall({0x40, 1, 0, 0, 0});
    expectStall({0x40, 0, 1, 0, 0});
    expectStall({0x40, 0, 0, 1, 0});
    expectStall({0x41, 0, 0, 0, 0});
    expectStall({0x20, 0, 0, 0, 0});
    EXPECT_EQ(reader.frameCount(), 0U);
}

} // namespace
} // namespace emulator
