#include "usbfs/device.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace emulator {
namespace {

class UsbfsDeviceTest : public testing::Test {
protected:
    int submit(OpenId id, UrbId urb, std::uint8_t endpoint, Bytes data = {}) {
        return device.submit(id, urb, {.endpoint = endpoint, .data = std::move(data), .capacity = 64}, now);
    }

    Time now{};
    ReaderModel reader{parseReaders("configuration=1+2").front()};
    HostFaults faults;
    HostCounts counts;
    UsbfsDevice device{reader, faults, counts, now};
    OpenId first = device.open();
    OpenId second = device.open();
};

TEST_F(UsbfsDeviceTest, InterfaceIsClaimedByOneOpening) {
    EXPECT_EQ(device.claim(first, 0), 0);
    EXPECT_EQ(device.claim(first, 0), 0) << "claiming again succeeds";
    EXPECT_EQ(device.claim(second, 0), -EBUSY);
    EXPECT_EQ(device.release(second, 0), -EINVAL);
    EXPECT_EQ(device.release(first, 0), 0);
    EXPECT_EQ(device.claim(second, 0), 0);
    EXPECT_EQ(device.claim(second, 1), -ENOENT);
}

TEST_F(UsbfsDeviceTest, ClosingReleasesAndCancels) {
    device.claim(first, 0);
    EXPECT_EQ(submit(first, 0x1000, 0x81), 0);
    device.close(first, now);
    EXPECT_EQ(device.claim(second, 0), 0);
    EXPECT_FALSE(device.reap(second).has_value());
    EXPECT_EQ(counts.closes, 1U);
    device.close(first, now);
    EXPECT_EQ(counts.closes, 1U);
}

TEST_F(UsbfsDeviceTest, ClosingPerformsNoPendingTransfer) {
    device.submit(first, 1, {.endpoint = 0, .setup = {0xC0, 0, 0, 0, 64}, .capacity = 64}, now);
    device.submit(first, 2, {.endpoint = 0, .setup = {0x40, 0, 0, 0, 1}, .data = {7}}, now);
    device.close(first, now);
    EXPECT_EQ(reader.frameCount(), 0U);
}

TEST_F(UsbfsDeviceTest, EachOpeningReapsItsOwnUrbs) {
    EXPECT_EQ(submit(first, 0x1000, 0x02, {1}), 0);
    EXPECT_FALSE(device.reap(second).has_value());
    const auto urb = device.reap(first);
    ASSERT_TRUE(urb.has_value());
    EXPECT_EQ(urb->urb, 0x1000U);
    EXPECT_EQ(urb->status, 0);
    EXPECT_EQ(urb->actual, 1U);
    EXPECT_FALSE(device.reap(first).has_value());
}

TEST_F(UsbfsDeviceTest, FirstTransferClaims) {
    EXPECT_EQ(submit(first, 1, 0x81), 0);
    EXPECT_EQ(submit(second, 2, 0x81), -EBUSY);
    EXPECT_EQ(submit(second, 2, 0x85), -ENOENT);
}

TEST_F(UsbfsDeviceTest, DiscardsOnlyPendingUrbs) {
    submit(first, 1, 0x81);
    EXPECT_EQ(device.discard(second, 1, now), -EINVAL);
    EXPECT_EQ(device.discard(first, 1, now), 0);
    EXPECT_EQ(device.reap(first)->status, -ENOENT);
    EXPECT_EQ(device.discard(first, 1, now), -EINVAL);
}

TEST_F(UsbfsDeviceTest, OnlyReapingWorksAfterUnplugging) {
    submit(first, 1, 0x81);
    device.unplug();
    EXPECT_FALSE(device.connected());
    EXPECT_EQ(device.claim(first, 0), -ENODEV);
    EXPECT_EQ(submit(first, 2, 0x81), -ENODEV);
    EXPECT_EQ(device.discard(first, 1, now), -ENODEV);
    EXPECT_EQ(device.clearHalt(first, 0x81, now), -ENODEV);
    EXPECT_EQ(device.reset(first, now), -ENODEV);
    EXPECT_EQ(device.setConfiguration(first, 1, now), -ENODEV);
    EXPECT_EQ(device.detachDriver(first, 0), -ENODEV);
    EXPECT_EQ(device.reap(first)->status, -ESHUTDOWN);
    EXPECT_FALSE(device.reap(first).has_value());
    device.close(first, now);
}

TEST_F(UsbfsDeviceTest, ConfigurationChangesOnlyWhileNothingIsClaimedOrBound) {
    EXPECT_EQ(device.setConfiguration(first, 2, now), 0);
    EXPECT_EQ(device.configuration(), 2);
    EXPECT_EQ(device.setConfiguration(first, 3, now), -EINVAL);
    device.claim(second, 0);
    EXPECT_EQ(device.setConfiguration(first, 1, now), -EBUSY);
    device.release(second, 0);
    device.bindDriver("usbhid");
    EXPECT_EQ(device.setConfiguration(first, 1, now), -EBUSY);
    device.bindDriver("");
    reader.requestFaults().refusesConfiguration = true;
    EXPECT_EQ(device.setConfiguration(first, 1, now), -EPIPE);
    EXPECT_EQ(device.setConfiguration(first, -1, now), -EPIPE);
}

TEST_F(UsbfsDeviceTest, DriverKeepsTheInterfaceUntilDetached) {
    EXPECT_EQ(device.detachDriver(first, 0), -ENODATA);
    device.bindDriver("usbhid");
    EXPECT_EQ(device.driver(0), "usbhid");
    EXPECT_EQ(device.claim(first, 0), -EBUSY);
    EXPECT_EQ(device.detachDriver(first, 0), 0);
    EXPECT_EQ(device.driver(0), "");
    EXPECT_EQ(device.claim(first, 0), 0);
    EXPECT_EQ(device.driver(0), "usbfs");
    EXPECT_EQ(device.detachDriver(first, 9), -EINVAL);
}

TEST(UsbfsDeviceDriverTest, OnlyTheFirstInterfaceGetsTheDriver) {
    ReaderModel reader{parseReaders("interfaces=2,driver=usbhid").front()};
    HostFaults faults;
    HostCounts counts;
    UsbfsDevice device{reader, faults, counts, Time{}};
    const OpenId opening = device.open();
    EXPECT_EQ(device.detachDriver(opening, 0), 0);
    EXPECT_EQ(device.attachDriver(opening, 1), 0) << "no driver matches it";
    EXPECT_EQ(device.driver(0), "");
    EXPECT_EQ(device.driver(1), "");
    EXPECT_EQ(device.attachDriver(opening, 0), 1);
    EXPECT_EQ(device.driver(0), "usbhid");
    EXPECT_EQ(device.attachDriver(opening, 0), -EBUSY);
    EXPECT_EQ(device.attachDriver(opening, 2), -EINVAL);
}

TEST_F(UsbfsDeviceTest, HostFaultsFailClaimAndReset) {
    faults.busy = true;
    EXPECT_EQ(device.claim(first, 0), -EBUSY);
    faults.failReset = true;
    EXPECT_EQ(device.reset(first, now), -EIO);
    faults = {};
    EXPECT_EQ(device.claim(first, 0), 0);
    EXPECT_EQ(device.reset(first, now), 0);
}

TEST_F(UsbfsDeviceTest, ReleasingEndsTransfers) {
    device.claim(first, 0);
    EXPECT_EQ(submit(first, 1, 0x81), 0);
    EXPECT_EQ(device.release(first, 0), 0);
    EXPECT_EQ(device.reap(first)->status, -ESHUTDOWN);
}

TEST_F(UsbfsDeviceTest, ResetTakesTheClaims) {
    device.claim(first, 0);
    EXPECT_EQ(device.reset(second, now), 0);
    EXPECT_EQ(device.claim(second, 0), 0);
}

TEST_F(UsbfsDeviceTest, HaltsAreClearedOnlyByWhoHasClaimed) {
    device.claim(first, 0);
    EXPECT_EQ(device.clearHalt(second, 0x81, now), -EBUSY);
    EXPECT_EQ(device.clearHalt(first, 0x91, now), -EINVAL);
    EXPECT_EQ(device.clearHalt(first, 0x85, now), -ENOENT);
    EXPECT_EQ(device.clearHalt(first, 0x81, now), 0);
    reader.setPipeFaults(pipeOf(0x02), {.stalled = true}, now);
    EXPECT_EQ(device.resetEndpoint(first, 0x02), 0);
    EXPECT_TRUE(reader.pipeFaults(pipeOf(0x02)).stalled) << "the reader's side is not reset";
}

TEST_F(UsbfsDeviceTest, DroppedPrivilegesDoNotComeBack) {
    EXPECT_EQ(device.dropPrivileges(first, 0), 0);
    EXPECT_EQ(device.dropPrivileges(first, ~0U), 0);
    EXPECT_EQ(device.claim(first, 0), -EACCES);
    EXPECT_EQ(device.detachDriver(first, 0), -EACCES);
    EXPECT_EQ(device.claim(second, 0), 0);
}

TEST_F(UsbfsDeviceTest, CountsWhatTheHostDid) {
    device.claim(first, 0);
    submit(first, 1, 0x81);
    device.discard(first, 1, now);
    device.clearHalt(first, 0x81, now);
    device.release(first, 0);
    device.reset(first, now);
    EXPECT_EQ(counts.opens, 2U);
    EXPECT_EQ(counts.claims, 1U);
    EXPECT_EQ(counts.transfers, 1U);
    EXPECT_EQ(counts.cancels, 1U);
    EXPECT_EQ(counts.clearHalts, 1U);
    EXPECT_EQ(counts.resets, 1U);
    EXPECT_EQ(counts.releases, 1U);
}

} // namespace
} // namespace emulator
