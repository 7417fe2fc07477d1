// The exported functions pass their arguments to the manager unchanged, and return its results.
#include "gvusb.h"

#include "allocation_failure.h"
#include "manager_test.h"
#include "mutex_probe.h"

#include "base/log.h"

#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

namespace fake = fake_libusb;
using fake::Bytes;
using testing::ElementsAre;

int firedEvents = 0;
void countEvent(int, unsigned int, const char*) {
    ++firedEvents;
}

class Exports : public ManagerTest {
protected:
    static constexpr const char* protocol = "TESK-RCI2";

    static int openReader() {
        fake::plug("dev1", fake::bulkReader("1A2B3C"));
        EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
        const int devHnd = GVUSB_GetDeviceList(0);
        EXPECT_GT(devHnd, 0);
        return devHnd;
    }

    static bool isOpen(const char* name) { return fake::openHandles(name) == 1; }

    char value[GVUSB_PARAMETER_SIZE] = {};
    const unsigned char frame[3] = {1, 2, 3};
    unsigned char buffer[8] = {};
};

TEST_F(Exports, ScanOnlyFindsReadersAndScanAndOpenOpensThem) {
    fake::plug("dev1", fake::bulkReader("1A2B3C"));
    fake::plug("dev2", fake::bulkReader("4D5E6F"));
    EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    EXPECT_EQ(GVUSB_GetScanListSize(), 2);
    EXPECT_FALSE(isOpen("dev1") || isOpen("dev2"));
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    EXPECT_TRUE(isOpen("dev1") && isOpen("dev2"));
    EXPECT_EQ(GVUSB_Scan(4, nullptr), -1154);
    EXPECT_EQ(GVUSB_ScanAndOpen(4, nullptr), -1154);
}

TEST_F(Exports, SearchRecordReachesBothScans) {
    fake::plug("dev1", fake::bulkReader("1A2B3C"));
    fake::plug("dev2", fake::bulkReader("4D5E6F"));
    GVUSB_SCANSEARCH search = {GVUSB_SEARCH_DEVICE_ID, "", "", "4D5E6F"};
    EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, &search), 0);
    EXPECT_EQ(GVUSB_GetScanListSize(), 1);
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, &search), 0);
    EXPECT_EQ(GVUSB_GetDeviceList(0), GVUSB_GetDeviceHnd(0x4D5E6F));
    EXPECT_FALSE(isOpen("dev1"));
}

TEST_F(Exports, ScanListIsReadByIndexAndCleared) {
    fake::plug("dev1", fake::bulkReader("1A2B3C"));
    fake::plug("dev2", fake::bulkReader("4D5E6F"));
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    EXPECT_EQ(GVUSB_GetScanListPara(1, "device-id", value), 0);
    EXPECT_STREQ(value, "4D5E6F");
    EXPECT_EQ(GVUSB_GetScanListPara(2, "DEVICE-ID", value), 1115);
    EXPECT_EQ(GVUSB_ClearScanList(), 0);
    EXPECT_EQ(GVUSB_GetScanListSize(), 0);
}

TEST_F(Exports, ReadersAreOpenedById) {
    fake::plug("dev1", fake::bulkReader("1A2B3C"));
    fake::plug("dev2", fake::bulkReader("F0000001"));
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    const int devHnd = GVUSB_OpenDevice(0xF0000001);
    EXPECT_GT(devHnd, 0);
    EXPECT_TRUE(isOpen("dev2"));
    EXPECT_FALSE(isOpen("dev1"));
    EXPECT_EQ(GVUSB_GetDeviceHnd(0xF0000001), devHnd);
    EXPECT_EQ(GVUSB_GetDeviceList(0), devHnd);
    EXPECT_EQ(GVUSB_IsDevicePresent(devHnd), 1);
    EXPECT_EQ(GVUSB_CloseDevice(devHnd), 0);
    EXPECT_FALSE(isOpen("dev2"));
    EXPECT_EQ(GVUSB_OpenDevice(0x1234), -1140);
}

TEST_F(Exports, TransfersCarryDataLengthAndSize) {
    const int devHnd = openReader();
    EXPECT_EQ(GVUSB_Transmit(devHnd, protocol, frame, 2), 0);
    EXPECT_THAT(fake::frames("dev1"), ElementsAre(Bytes{1, 2}));
    EXPECT_EQ(GVUSB_Receive(devHnd, protocol, buffer, 8), 2);
    EXPECT_THAT(buffer, ElementsAre(1, 2, 0, 0, 0, 0, 0, 0));
    fake::recordWithoutBookkeeping();
    fake::takeCalls();
    EXPECT_EQ(GVUSB_Transceive(devHnd, protocol, 0, frame, 3, buffer, 7), 3);
    EXPECT_THAT(fake::takeCalls(), ElementsAre("libusb_bulk_transfer(hnd1, 0x02, 3, 1000) = 0",
                                               "libusb_bulk_transfer(hnd1, 0x81, 7, 1000) = 0"));
    EXPECT_EQ(GVUSB_Transmit(devHnd, "OTHER", frame, 2), -1132);
    EXPECT_EQ(GVUSB_Receive(devHnd, "OTHER", buffer, 8), -1132);
    EXPECT_EQ(GVUSB_Transceive(devHnd, "OTHER", 0, frame, 3, buffer, 8), -1132);
}

TEST_F(Exports, TransceiveIgnoresItsThirdArgument) {
    const int devHnd = openReader();
    for (const int reserved : {-2147483647 - 1, -1, 0, 7, 2147483647}) {
        EXPECT_EQ(GVUSB_Transceive(devHnd, protocol, reserved, frame, 3, buffer, 8), 3) << reserved;
        EXPECT_EQ(fake::frames("dev1").back(), (Bytes{1, 2, 3})) << reserved;
    }
}

TEST_F(Exports, ParametersReachTheReaderAndTheDriver) {
    const int devHnd = openReader();
    EXPECT_EQ(GVUSB_SetDevicePara(devHnd, "timeout", "250"), 0);
    EXPECT_EQ(GVUSB_GetDevicePara(devHnd, "TIMEOUT", value), 0);
    EXPECT_STREQ(value, "250");
    EXPECT_EQ(GVUSB_GetDevicePara(0, "TIMEOUT", value), 0);
    EXPECT_EQ(GVUSB_GetDevicePara(-1, "HOTPLUG-MODE", value), 0);
    EXPECT_STREQ(value, "0");
    EXPECT_EQ(GVUSB_SetDevicePara(-1, "HOTPLUG-SUSPEND", "1"), 0);
}

TEST_F(Exports, HandlersAreRegisteredAndRemoved) {
    GVUSB_EVENT_INIT registration = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, countEvent};
    firedEvents = 0;
    EXPECT_EQ(GVUSB_AddEventHandler(1, &registration), -1106);
    EXPECT_EQ(GVUSB_AddEventHandler(0, &registration), 0);
    GVDrvHnd::ExecEventInitListCallbacks(GVUSB_EVENT_CONNECT, 0, 1);
    EXPECT_EQ(firedEvents, 1);
    EXPECT_EQ(GVUSB_DelEventHandler(1, &registration), -1106);
    EXPECT_EQ(GVUSB_DelEventHandler(0, &registration), 0);
    EXPECT_EQ(GVUSB_DelEventHandler(0, &registration), -1150);
}

TEST_F(Exports, VersionIsTheSameTextAtTheSameAddress) {
    const char* const version = GVUSB_GetDLLVersion();
    EXPECT_STREQ(version, "07.01.00");
    EXPECT_EQ(GVUSB_GetDLLVersion(), version);
    EXPECT_STREQ(version, "07.01.00");
}

TEST_F(Exports, VersionMayBeReadByAllThreads) {
    const auto ask = [] {
        for (int i = 0; i < 300; ++i) {
            GVUSB_GetDLLVersion();
        }
    };
    std::thread other(ask);
    ask();
    other.join();
    EXPECT_STREQ(GVUSB_GetDLLVersion(), "07.01.00");
}

// std::bad_alloc passes through the exported functions, which unlock every mutex.
TEST_F(Exports, RunningOutOfMemoryReleasesEveryMutex) {
    if (!support::allocationsAreWatched) {
        GTEST_SKIP() << "the sanitizer replaces operator new";
    }
    fake::plug("dev1", fake::bulkReader("1A2B3C"));
    bool everythingRan = false;
    for (std::size_t n = 1; !everythingRan; ++n) {
        ASSERT_LT(n, 1000u);
        {
            const auto failure = support::failAllocation(n);
            try {
                GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr);
                const int devHnd = GVUSB_GetDeviceHnd(0x1A2B3C);
                GVUSB_Transceive(devHnd, protocol, 0, frame, 3, buffer, 8);
                GVUSB_GetDevicePara(devHnd, "TYPENUMBER", value);
                GVUSB_CloseDevice(devHnd);
            } catch (const std::bad_alloc&) {
            }
            everythingRan = !failure.happened();
        }
        EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxDevList)) << n;
        EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxScanList)) << n;
        EXPECT_FALSE(support::isHeld(g_MtxEvtInitAry)) << n;
        GVUSB_CloseDevice(GVUSB_GetDeviceList(0));
    }
}

} // namespace
