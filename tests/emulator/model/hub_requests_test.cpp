#include "model/model.h"

#include <gtest/gtest.h>

namespace emulator {
namespace {

class HubRequestsTest : public testing::Test {
protected:
    Completion request(ControlSetup setup) {
        hub.submit({.endpoint = 0, .setup = setup, .data = {}, .capacity = setup.in() ? setup.length : 0U},
                   Time{});
        return hub.takeCompletion().value_or(Completion{.outcome = Outcome::gone});
    }
    void expectAnswer(ControlSetup setup, const Bytes& data) {
        const Completion completion = request(setup);
        EXPECT_EQ(completion.outcome, Outcome::done);
        EXPECT_EQ(completion.data, data);
    }
    void expectStall(ControlSetup setup) { EXPECT_EQ(request(setup).outcome, Outcome::stalled); }

    static ReaderDescription description() {
        ReaderDescription hub;
        hub.hub = true;
        return hub;
    }
    ReaderModel hub{description()};
};

TEST_F(HubRequestsTest, ReturnsTheHubDescriptor) {
    expectAnswer({0xA0, 6, 0x2900, 0, 71}, {11, 0x29, 8, 9, 0, 10, 0, 0, 0, 0xFF, 0xFF});
    expectAnswer({0xA0, 6, 0x2900, 0, 7}, {11, 0x29, 8, 9, 0, 10, 0});
    expectStall({0xA0, 6, 0x2A00, 0, 12});
}

TEST_F(HubRequestsTest, HasAsManyPortsAsHaveBeenInUse) {
    hub.connectPort(17, Speed::full);
    hub.connectPort(17, std::nullopt);
    EXPECT_EQ(hub.portCount(), 17U);
    EXPECT_EQ(request({0xA0, 6, 0x2900, 0, 71}).data[2], 17);
    EXPECT_EQ(request({0xA0, 6, 0x2900, 0, 71}).data.size(), 13U);
    hub.connectPort(1000, Speed::full);
    EXPECT_EQ(hub.portCount(), 255U);
    EXPECT_EQ(request({0xA0, 6, 0x2900, 0, 71}).data.size(), 71U);
}

TEST_F(HubRequestsTest, ReportsWhatIsConnected) {
    expectAnswer({0x80, 0, 0, 0, 2}, {1, 0});
    expectAnswer({0xA0, 0, 0, 0, 4}, {0, 0, 0, 0});
    hub.connectPort(1, Speed::low);
    hub.connectPort(2, Speed::full);
    hub.connectPort(3, Speed::high);
    expectAnswer({0xA3, 0, 0, 1, 4}, {0x03, 0x03, 0, 0});
    expectAnswer({0xA3, 0, 0, 2, 4}, {0x03, 0x01, 0, 0});
    expectAnswer({0xA3, 0, 0, 3, 4}, {0x03, 0x05, 0, 0});
    expectAnswer({0xA3, 0, 0, 4, 4}, {0x00, 0x01, 0, 0});
    hub.connectPort(2, std::nullopt);
    expectAnswer({0xA3, 0, 0, 2, 4}, {0x00, 0x01, 0, 0});
    expectStall({0xA3, 0, 0, 0, 4});
    expectStall({0xA3, 0, 0, 9, 4});
}

TEST_F(HubRequestsTest, RefusesToChangePorts) {
    expectStall({0x23, 3, 8, 1, 0});
    expectStall({0x23, 1, 8, 1, 0});
}

TEST_F(HubRequestsTest, ReadersAreNoHubs) {
    ReaderModel reader{ReaderDescription{}};
    reader.submit({.endpoint = 0, .setup = {0xA0, 6, 0x2900, 0, 71}, .data = {}, .capacity = 71}, Time{});
    EXPECT_EQ(reader.takeCompletion()->outcome, Outcome::stalled);
}

} // namespace
} // namespace emulator
