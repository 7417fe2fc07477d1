#include "manager_lists.h"
#include "manager_test.h"

#include <array>
#include <climits>
#include <memory>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int noHandle = GVUSB_ERR_HANDLE_NOT_FOUND;
constexpr unsigned char frame[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};

class DeviceListTest : public ManagerTest {
protected:
    // A record that the device list owns, as after opening. The manager destroys it.
    static GVDevice* record(int devHnd, unsigned devId, const std::string& name) {
        auto* device = new GVDevice(devHnd, fake::plug(name, fake::bulkReader()));
        device->devId = devId;
        device->owner = false;
        return device;
    }

    static std::vector<int> drawHandles(int counter, int count) {
        const MutexLock lock(g_GvUsbMan.m_mtxDevList);
        g_GvUsbMan.m_iHandleCounter = counter;
        std::vector<int> handles;
        for (int i = 0; i < count; ++i) {
            handles.push_back(g_GvUsbMan.NextDeviceHandle());
        }
        return handles;
    }
};

} // namespace

TEST_F(DeviceListTest, HandlesIncreaseFromTheFirstOne) {
    EXPECT_THAT(drawHandles(0, 3), ElementsAre(0x10000001, 0x10000002, 0x10000003));
}

TEST_F(DeviceListTest, HandlesStartAgainAfterTheLastOne) {
    EXPECT_THAT(drawHandles(0x0FFFFFFD, 4), ElementsAre(0x1FFFFFFE, 0x1FFFFFFF, 0x10000001, 0x10000002));
    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    EXPECT_EQ(g_GvUsbMan.m_iHandleCounter, 2);
}

TEST_F(DeviceListTest, HandleOfAnOpenReaderIsNotReused) {
    setDeviceList({record(0x10000001, 1, "dev1")});
    EXPECT_THAT(drawHandles(0x0FFFFFFE, 3), ElementsAre(0x1FFFFFFF, 0x10000002, 0x10000003));
    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    EXPECT_EQ(g_GvUsbMan.m_iHandleCounter, 3);
}

TEST_F(DeviceListTest, HandlesOfOpenReadersAreSkippedAlsoInARowAndAcrossTheWrap) {
    setDeviceList({record(0x10000002, 1, "dev1"), nullptr, record(0x1FFFFFFF, 2, "dev2"),
                   record(0x10000001, 3, "dev3"), record(0x10000004, 4, "dev4")});
    EXPECT_THAT(drawHandles(0x0FFFFFFD, 4), ElementsAre(0x1FFFFFFE, 0x10000003, 0x10000005, 0x10000006));
}

TEST_F(DeviceListTest, HandleIsReusedOnceItsReaderIsClosed) {
    setDeviceList({record(0x10000001, 1, "dev1")});
    EXPECT_THAT(drawHandles(0, 1), ElementsAre(0x10000002));
    ASSERT_EQ(GVUSB_CloseDevice(0x10000001), 0);
    EXPECT_THAT(drawHandles(0, 1), ElementsAre(0x10000001));
}

// Reopening returns the same handle.
TEST_F(DeviceListTest, HandleOfAClosedReaderInTheScanListIsNotReused) {
    ASSERT_EQ(openReader("dev1", "A1"), firstHandle);
    ASSERT_EQ(GVUSB_CloseDevice(firstHandle), 0);
    EXPECT_THAT(drawHandles(0, 1), ElementsAre(firstHandle + 1));
    EXPECT_EQ(GVUSB_OpenDevice(0xA1), firstHandle);
}

TEST_F(DeviceListTest, ScanAfterTheWrapGivesNoReaderTheHandleOfAnother) {
    ASSERT_EQ(openReader("dev1", "A1"), firstHandle);
    drawHandles(0, 0);
    EXPECT_EQ(openReader("dev2", "A2"), firstHandle + 1);
    EXPECT_THAT(openHandlesInOrder(), ElementsAre(firstHandle, firstHandle + 1));
    EXPECT_EQ(
        GVUSB_Transceive(firstHandle, GVUSB_PROTOCOL, 0, frame, 1, std::array<unsigned char, 8>().data(), 8),
        1);
    EXPECT_EQ(fake::frames("dev1").size(), 1u);
    EXPECT_THAT(fake::frames("dev2"), IsEmpty());
}

TEST_F(DeviceListTest, IterationOfAnEmptyListEndsAtOnce) {
    for (const int devHnd : {0, 1, firstHandle, -1, INT_MIN}) {
        EXPECT_EQ(GVUSB_GetDeviceList(devHnd), 0) << devHnd;
    }
}

TEST_F(DeviceListTest, IterationSkipsHoles) {
    setDeviceList({nullptr, record(21, 1, "dev1"), nullptr, nullptr, record(22, 2, "dev2"), nullptr});
    EXPECT_THAT(openHandlesInOrder(), ElementsAre(21, 22));
}

TEST_F(DeviceListTest, IterationStartsAtTheFrontForNegativeHandles) {
    setDeviceList({nullptr, record(21, 1, "dev1"), record(22, 2, "dev2")});
    EXPECT_EQ(GVUSB_GetDeviceList(-1), 21);
    EXPECT_EQ(GVUSB_GetDeviceList(INT_MIN), 21);
}

TEST_F(DeviceListTest, IterationEndsAtAHandleThatIsNotOpenAndKeepsTheLastError) {
    setDeviceList({record(21, 1, "dev1"), record(22, 2, "dev2")});
    g_GvUsbMan.SetLastError(-1111);
    EXPECT_EQ(GVUSB_GetDeviceList(23), 0);
    EXPECT_EQ(GVUSB_CloseDevice(21), 0);
    g_GvUsbMan.SetLastError(-1111);
    EXPECT_EQ(GVUSB_GetDeviceList(21), 0);
    EXPECT_EQ(GVUSB_GetDeviceList(0), 22);
    EXPECT_EQ(lastError(), -1111);
}

TEST_F(DeviceListTest, LookupsGiveTheFirstMatchAndSkipHoles) {
    GVDevice* const first = record(21, 7, "dev1");
    GVDevice* const second = record(22, 8, "dev2");
    auto* const twin = new GVDevice(22, fake::device("dev2"));
    twin->devId = 8;
    twin->owner = false;
    libusb_device* const other = fake::plug("dev3", fake::bulkReader());
    setDeviceList({nullptr, first, nullptr, second, twin});

    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    EXPECT_EQ(g_GvUsbMan.DL_DeviceOfUsbDev(fake::device("dev1")), first);
    EXPECT_EQ(g_GvUsbMan.DL_DeviceOfUsbDev(fake::device("dev2")), second);
    EXPECT_EQ(g_GvUsbMan.DL_DeviceOfUsbDev(other), nullptr);
    EXPECT_EQ(g_GvUsbMan.DL_DeviceOfDevHnd(21), first);
    EXPECT_EQ(g_GvUsbMan.DL_DeviceOfDevHnd(22), second);
    EXPECT_EQ(g_GvUsbMan.DL_DeviceOfDevHnd(0), nullptr);
    EXPECT_EQ(g_GvUsbMan.DL_HandleOfDeviceId(7), 21);
    EXPECT_EQ(g_GvUsbMan.DL_HandleOfDeviceId(8), 22);
    EXPECT_EQ(g_GvUsbMan.DL_HandleOfDeviceId(9), 0);
}

TEST_F(DeviceListTest, DeviceIdZeroIsNeverFound) {
    setDeviceList({record(21, 0, "dev1")});
    {
        const MutexLock lock(g_GvUsbMan.m_mtxDevList);
        EXPECT_EQ(g_GvUsbMan.DL_HandleOfDeviceId(0), 0);
    }
    EXPECT_EQ(GVUSB_GetDeviceHnd(0), -1144);
    EXPECT_EQ(lastError(), -1144);
}

TEST_F(DeviceListTest, ReadersLastErrorIsReadWithoutChangingTheManagers) {
    const int devHnd = openReader("dev1", "1A2B3C");
    EXPECT_EQ(GVUSB_Transmit(devHnd, "OTHER", frame, sizeof frame), -1132);
    g_GvUsbMan.SetLastError(-1111);
    EXPECT_EQ(g_GvUsbMan.GetLastError(devHnd), -1132);
    EXPECT_EQ(g_GvUsbMan.GetLastError(77), noHandle);
    EXPECT_EQ(g_GvUsbMan.GetLastError(-5), noHandle);
    EXPECT_EQ(g_GvUsbMan.GetLastError(0), noHandle);
    EXPECT_EQ(lastError(), -1111);
}

TEST_F(DeviceListTest, HandleOfAnOpenReaderIsFoundWithoutChangingTheLastError) {
    const int devHnd = openReader("dev1", "1A2B3C");
    g_GvUsbMan.SetLastError(-1111);
    EXPECT_EQ(GVUSB_GetDeviceHnd(0x1A2B3C), devHnd);
    EXPECT_EQ(lastError(), -1111);
}

TEST_F(DeviceListTest, ScannedReaderHasNoHandleYet) {
    fake::plug("dev1", fake::bulkReader("1A2B3C"));
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    EXPECT_EQ(GVUSB_GetDeviceHnd(0x1A2B3C), -1144);
    EXPECT_EQ(lastError(), -1144);
}

TEST_F(DeviceListTest, ClearingDestroysWhatTheScanListDoesNotOwn) {
    GVDevice* const own = record(21, 1, "dev1");
    GVDevice* const ownButScannedToo = record(22, 2, "dev2");
    GVDevice* const scanLists = record(23, 3, "dev3");
    scanLists->owner = true;
    setScanList({ownButScannedToo, scanLists});
    setDeviceList({own, nullptr, ownButScannedToo, scanLists});
    fake::takeCalls();

    g_GvUsbMan.ClearDeviceList();
    EXPECT_EQ(fake::takeCallText(), "libusb_unref_device(dev1)\nlibusb_unref_device(dev2)\n");
    EXPECT_THAT(deviceList(), IsEmpty());
    EXPECT_THAT(scanList(), ElementsAre(nullptr, scanLists));
}

TEST_F(DeviceListTest, ClearingClosesOpenReaders) {
    openReader("dev1", "1A2B3C");
    g_GvUsbMan.ClearScanList();
    fake::takeCalls();
    g_GvUsbMan.ClearDeviceList();
    EXPECT_EQ(fake::takeCallText(), "libusb_release_interface(hnd1, 0) = -5\n"
                                    "libusb_close(hnd1)\n"
                                    "libusb_unref_device(dev1)\n");
    EXPECT_EQ(GVUSB_GetDeviceList(0), 0);
}

TEST_F(DeviceListTest, MembersWithoutTransferWaitForTheDeviceListMutexToo) {
    const int devHnd = openReader("dev1", "1A2B3C");
    Mutex& mutex = g_GvUsbMan.m_mtxDevList;
    EXPECT_TRUE(waitsFor(mutex, [] { GVUSB_GetDeviceList(0); }));
    EXPECT_TRUE(waitsFor(mutex, [] { GVUSB_GetDeviceHnd(1); }));
    EXPECT_TRUE(waitsFor(mutex, [&] { g_GvUsbMan.GetLastError(devHnd); }));
    EXPECT_TRUE(waitsFor(mutex, [] { g_GvUsbMan.ClearScanList(); }));
    EXPECT_TRUE(waitsFor(mutex, [] { g_GvUsbMan.ClearDeviceList(); }));
}

TEST_F(DeviceListTest, NothingIsLogged) {
    const int devHnd = openReader("dev1", "1A2B3C");
    LogAt log(1);
    GVUSB_GetDeviceList(0);
    GVUSB_GetDeviceHnd(1);
    g_GvUsbMan.GetLastError(devHnd);
    g_GvUsbMan.ClearScanList();
    g_GvUsbMan.ClearDeviceList();
    EXPECT_THAT(log.takeLines(), IsEmpty());
}
