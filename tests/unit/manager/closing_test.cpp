// Closing by handle (the second part of opening.cpp).

#include "allocation_failure.h"
#include "list_invariants.h"
#include "manager_test.h"

#include <climits>
#include <new>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ClosingTest : public ManagerTest {
protected:
    // Opens dev1 to dev3; their handles start at the first one.
    static void openThree() {
        for (const char* const name : {"dev1", "dev2", "dev3"}) {
            fake::plug(name, fake::bulkReader(std::string("A") + name[3]));
        }
        ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
        fake::takeCalls();
    }
};

} // namespace

TEST_F(ClosingTest, ReaderThatIsStillScannedIsKeptAndCanBeOpenedAgain) {
    openThree();
    GVDevice* const device = scanList().at(1);
    g_GvUsbMan.SetLastError(-1111);
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle + 1), 0);
    EXPECT_EQ(lastError(), 0);
    EXPECT_EQ(fake::takeCallText(), "libusb_release_interface(hnd2, 0) = -5\n"
                                    "libusb_close(hnd2)\n");
    EXPECT_THAT(openHandlesInOrder(), ElementsAre(firstHandle, firstHandle + 2));
    EXPECT_EQ(scanList().at(1), device);
    EXPECT_TRUE(device->owner);
    EXPECT_EQ(device->devHnd, firstHandle + 1);
    expectConsistentLists({"dev1", "dev2", "dev3"});

    EXPECT_EQ(GVUSB_OpenDevice(0xA2), firstHandle + 1);
    EXPECT_THAT(openHandlesInOrder(), ElementsAre(firstHandle, firstHandle + 2, firstHandle + 1));
}

TEST_F(ClosingTest, ReaderThatIsNoLongerScannedIsDestroyed) {
    openThree();
    GVUSB_ClearScanList();
    g_GvUsbMan.SetLastError(-1111);
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle), 0);
    EXPECT_EQ(lastError(), 0);
    EXPECT_EQ(fake::takeCallText(), "libusb_release_interface(hnd1, 0) = -5\n"
                                    "libusb_close(hnd1)\n"
                                    "libusb_unref_device(dev1)\n");
    EXPECT_THAT(openHandlesInOrder(), ElementsAre(firstHandle + 1, firstHandle + 2));
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle), -1123);
    EXPECT_EQ(lastError(), -1123);
}

TEST_F(ClosingTest, ReaderMissingFromTheRebuiltScanListIsDestroyed) {
    openThree();
    GVUSB_SCANSEARCH search = {};
    search.mask = GVUSB_SEARCH_DEVICE_ID;
    search.devId[0] = 'A';
    search.devId[1] = '1';
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, &search), 0);
    LogAt log(1);
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle + 1), 0);
    EXPECT_EQ(fake::references("dev2"), 0);
    EXPECT_EQ(log.takeLines().at(0),
              "[close device] devHnd=0x10000002 devId=0xa2:done - device object destroyed");
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle), 0);
    EXPECT_EQ(fake::references("dev1"), 1);
    EXPECT_EQ(log.takeLines().at(0),
              "[close device] devHnd=0x10000001 devId=0xa1:done - device still in scan list");
}

TEST_F(ClosingTest, ReaderInTheRebuiltScanListIsKept) {
    openThree();
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle), 0);
    EXPECT_TRUE(scanList().at(0)->owner);
    EXPECT_EQ(fake::references("dev1"), 1);
}

TEST_F(ClosingTest, UnknownHandleIsRefused) {
    openThree();
    LogAt log(1);
    for (const int devHnd : {1, 0x2BCDEF, INT_MAX}) {
        g_GvUsbMan.SetLastError(0);
        EXPECT_EQ(GVUSB_CloseDevice(devHnd), -1123);
        EXPECT_EQ(lastError(), -1123);
        EXPECT_THAT(log.takeLines(), ElementsAre("[close device] devHnd=0x" +
                                                 hex(static_cast<unsigned>(devHnd)) + " not in device list"));
    }
    GVLOG_SetLevel(0);
    EXPECT_EQ(GVUSB_CloseDevice(1), -1123);
    EXPECT_THAT(log.takeLines(), IsEmpty());
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_F(ClosingTest, HandleOfAScannedReaderIsUnknownUntilItIsOpened) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle), -1123);
}

TEST_F(ClosingTest, HolesAreSkippedAndKept) {
    openThree();
    Devices devices = deviceList();
    devices.insert(devices.begin() + 1, nullptr);
    setDeviceList(devices);
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle + 1), 0);
    EXPECT_THAT(deviceList(), ElementsAre(devices[0], nullptr, devices[3]));
}

TEST_F(ClosingTest, UnpluggedReaderClosesLikeAnyOther) {
    openThree();
    fake::unplug("dev3");
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle + 2), 0);
    EXPECT_EQ(lastError(), 0);
    EXPECT_EQ(fake::openHandles("dev3"), 0);
}

TEST_F(ClosingTest, ClosingIsLoggedAtItsLevels) {
    openThree();
    const std::string dev2 = deviceText(firstHandle + 1, 0xA2, "dev2", false);
    LogAt log(3);
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle + 2), 0);
    EXPECT_THAT(log.takeLines(),
                ElementsAre("[close] devHnd=0x10000003 devId=0xa3: ok",
                            "[close device] devHnd=0x10000003 devId=0xa3:done - device still in scan list",
                            "[device-list] dev0: " + deviceText(firstHandle, 0xA1, "dev1", false),
                            "[device-list] dev1: " + dev2));
    GVUSB_ClearScanList();
    GVLOG_SetLevel(1);
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle), 0);
    EXPECT_THAT(log.takeLines(),
                ElementsAre("[close device] devHnd=0x10000001 devId=0xa1:done - device object destroyed",
                            "[device-list] dev0: " + dev2));
    GVLOG_SetLevel(0);
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle + 1), 0);
    EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(ClosingTest, RecordIsDestroyedBeforeTheLogSaysSo) {
    openThree();
    GVUSB_ClearScanList();
    LogAt log(1);
    fake::setHook([&](std::string_view function, std::string_view) {
        if (function == "libusb_unref_device") {
            EXPECT_THAT(log.takeLines(), IsEmpty());
        }
    });
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle), 0);
    fake::setHook({});
    EXPECT_EQ(log.takeLines().size(), 3u);
}

TEST_F(ClosingTest, LastReaderLeavesAnEmptyList) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    LogAt log(1);
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle), 0);
    EXPECT_EQ(log.takeLines().at(1), "[device-list] no devices");
}

TEST_F(ClosingTest, ScanAfterClosingCreatesANewRecord) {
    openThree();
    ASSERT_EQ(GVUSB_CloseDevice(firstHandle), 0);
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    EXPECT_EQ(scanList().at(0)->devHnd, firstHandle + 3);
    EXPECT_EQ(GVUSB_OpenDevice(0xA1), firstHandle + 3);
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle), -1123);
    expectConsistentLists({"dev1", "dev2", "dev3"});
}

TEST_F(ClosingTest, OnlyTheDeviceListMutexIsHeld) {
    openThree();
    int calls = 0;
    fake::setHook([&](std::string_view function, std::string_view) {
        ++calls;
        EXPECT_TRUE(isGuarded(function));
        EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxScanList));
    });
    GVUSB_CloseDevice(firstHandle);
    GVUSB_ClearScanList();
    GVUSB_CloseDevice(firstHandle + 1);
    fake::setHook({});
    EXPECT_EQ(calls, 6);
    EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxDevList));
    EXPECT_TRUE(waitsFor(g_GvUsbMan.m_mtxDevList, [] { g_GvUsbMan.CloseDevice(1); }));
}

TEST_F(ClosingTest, EveryAllocationOfAClosingMayFail) {
    if (!support::allocationsAreWatched) {
        GTEST_SKIP() << "the sanitizer replaces operator new";
    }
    for (const bool scanned : {true, false}) {
        bool failed = true;
        std::size_t n = 1;
        for (; failed; ++n) {
            SCOPED_TRACE(testing::Message() << (scanned ? "scanned " : "unscanned ") << n);
            reload();
            openThree();
            if (!scanned) {
                GVUSB_ClearScanList();
            }
            LogAt log(2);
            {
                const auto failure = support::failAllocation(n);
                try {
                    GVUSB_CloseDevice(firstHandle + 1);
                } catch (const std::bad_alloc&) {
                }
                failed = failure.happened();
            }
            EXPECT_THAT(openHandlesInOrder(), ElementsAre(firstHandle, firstHandle + 2));
            EXPECT_EQ(fake::openHandles("dev2"), 0);
            expectConsistentLists({"dev1", "dev2", "dev3"});
        }
        EXPECT_GT(n, 3u);
    }
}
