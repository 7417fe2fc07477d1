#include "allocation_failure.h"
#include "list_invariants.h"
#include "manager_test.h"

#include <climits>
#include <functional>
#include <new>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class OpeningTest : public ManagerTest {
protected:
    static void scanThree() {
        fake::plug("dev1", fake::bulkReader("A1"));
        fake::plug("dev2", fake::controlReader("A2"));
        fake::plug("dev3", fake::bulkReader("A3"));
        ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
        fake::takeCalls();
    }

    static void makeConfigurable(const std::string& name) {
        fake::change(name, [](fake::FakeReader& reader) {
            reader.configurations.insert(reader.configurations.begin(), fake::FakeConfiguration{.value = 3});
        });
    }
};

// The ways to open the second of three scanned readers, which has the device ID A2.
struct Way {
    const char* name;
    std::function<int()> open;
};

const Way byId = {"by device ID", [] { return GVUSB_OpenDevice(0xA2); }};
const Way byIndex = {"by index", [] { return g_GvUsbMan.OpenDevice(1); }};

struct Failure {
    const char* call;
    int usbResult;
    int code;
    const char* callText;
};

const Failure failures[] = {
    {"libusb_open", LIBUSB_ERROR_ACCESS, -1143, "libusb_open(dev2) = -3\n"},
    {"libusb_get_config_descriptor", LIBUSB_ERROR_NOT_FOUND, -1167,
     "libusb_open(dev2) = 0\n"
     "libusb_get_config_descriptor(dev2, 0) = -5\n"
     "libusb_release_interface(hnd2, 0) = -5\n"
     "libusb_close(hnd2)\n"},
    {"libusb_set_configuration", LIBUSB_ERROR_BUSY, -1104,
     "libusb_open(dev2) = 0\n"
     "libusb_get_config_descriptor(dev2, 0) = 0\n"
     "libusb_set_configuration(hnd2, 1) = -6\n"
     "libusb_free_config_descriptor(config of dev2)\n"
     "libusb_release_interface(hnd2, 0) = -5\n"
     "libusb_close(hnd2)\n"},
};

} // namespace

TEST_F(OpeningTest, OpeningMovesAReaderToTheDeviceListAndReturnsItsHandle) {
    for (const Way& way : {byId, byIndex}) {
        SCOPED_TRACE(way.name);
        reload();
        scanThree();
        GVDevice* const device = scanList().at(1);
        g_GvUsbMan.SetLastError(-1111);
        EXPECT_EQ(way.open(), firstHandle + 1);
        EXPECT_EQ(lastError(), 0);
        EXPECT_THAT(deviceList(), ElementsAre(device));
        EXPECT_EQ(scanList().at(1), device);
        EXPECT_FALSE(device->owner);
        EXPECT_TRUE(isOpen(*device));
        EXPECT_EQ(fake::takeCallText(), "libusb_open(dev2) = 0\n"
                                        "libusb_get_config_descriptor(dev2, 0) = 0\n"
                                        "libusb_free_config_descriptor(config of dev2)\n");
        expectConsistentLists({"dev1", "dev2", "dev3"});
    }
}

TEST_F(OpeningTest, OpeningAnOpenReaderOnlyReturnsItsHandle) {
    scanThree();
    ASSERT_EQ(byId.open(), firstHandle + 1);
    const Devices before = deviceList();
    for (const Way& way : {byId, byIndex}) {
        SCOPED_TRACE(way.name);
        fake::takeCalls();
        g_GvUsbMan.SetLastError(-1111);
        LogAt log(3);
        EXPECT_EQ(way.open(), firstHandle + 1);
        EXPECT_EQ(lastError(), -1111);
        EXPECT_THAT(log.takeLines(), IsEmpty());
        EXPECT_THAT(fake::takeCalls(), IsEmpty());
        EXPECT_EQ(deviceList(), before);
    }
}

TEST_F(OpeningTest, FailedOpeningLeavesTheReaderScannedAndClosedForARetry) {
    for (const Way& way : {byId, byIndex}) {
        for (const Failure& failure : failures) {
            SCOPED_TRACE(testing::Message() << way.name << ": " << failure.call);
            reload();
            scanThree();
            makeConfigurable("dev2");
            GVDevice* const device = scanList().at(1);
            for (int attempt = 0; attempt < 2; ++attempt) {
                g_GvUsbMan.SetLastError(0);
                fake::failNext(failure.call, failure.usbResult, "dev2");
                EXPECT_EQ(way.open(), failure.code);
                EXPECT_EQ(lastError(), failure.code);
                EXPECT_EQ(fake::takeCallText(), failure.callText);
                EXPECT_THAT(deviceList(), IsEmpty());
                EXPECT_EQ(scanList().at(1), device);
                EXPECT_TRUE(device->owner);
                expectConsistentLists({"dev1", "dev2", "dev3"});
            }
            EXPECT_EQ(way.open(), firstHandle + 1);
            EXPECT_EQ(lastError(), 0);
            EXPECT_THAT(fake::takeCallText(), HasSubstr("libusb_set_configuration(hnd2, 1) = 0\n"));
        }
    }
}

TEST_F(OpeningTest, ReadersOwnLastErrorIsThatOfTheAttempt) {
    scanThree();
    GVDevice* const device = scanList().at(1);
    fake::failNext("libusb_open", LIBUSB_ERROR_ACCESS, "dev2");
    EXPECT_EQ(byId.open(), -1143);
    EXPECT_EQ(relaxed::load(device->lastError), -1143);
    fake::failNext("libusb_get_config_descriptor", LIBUSB_ERROR_IO, "dev2");
    EXPECT_EQ(byId.open(), -1167);
    EXPECT_EQ(relaxed::load(device->lastError), -1143);
}

TEST_F(OpeningTest, DeviceIdThatIsNotScannedIsRefused) {
    scanThree();
    LogAt log(1);
    EXPECT_EQ(GVUSB_OpenDevice(0xBEEF), -1140);
    EXPECT_EQ(lastError(), -1140);
    EXPECT_THAT(log.takeLines(), ElementsAre("[open device] devId=0xbeef not scanned"));
    EXPECT_EQ(GVUSB_OpenDevice(0), -1140);
    EXPECT_THAT(log.takeLines(), ElementsAre("[open device] devId=0x0 not scanned"));
    GVLOG_SetLevel(0);
    EXPECT_EQ(GVUSB_OpenDevice(0xBEEF), -1140);
    EXPECT_THAT(log.takeLines(), IsEmpty());
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_F(OpeningTest, OpenReaderThatLeftTheScanListIsNotScanned) {
    scanThree();
    ASSERT_EQ(byId.open(), firstHandle + 1);
    GVUSB_ClearScanList();
    EXPECT_EQ(byId.open(), -1140);
    EXPECT_EQ(GVUSB_GetDeviceHnd(0xA2), firstHandle + 1);
}

TEST_F(OpeningTest, IndexOutsideTheListIsRefused) {
    EXPECT_EQ(g_GvUsbMan.OpenDevice(0), -1153);
    scanThree();
    LogAt log(3);
    for (const int index : {3, 4, INT_MAX, -1, INT_MIN}) {
        g_GvUsbMan.SetLastError(0);
        EXPECT_EQ(g_GvUsbMan.OpenDevice(index), -1153) << index;
        EXPECT_EQ(lastError(), -1153);
    }
    EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(OpeningTest, HoleIsRefusedByIndexAndSkippedByDeviceId) {
    scanThree();
    Devices devices = scanList();
    devices.insert(devices.begin(), nullptr);
    setScanList(devices);
    EXPECT_EQ(g_GvUsbMan.OpenDevice(0), -1155);
    EXPECT_EQ(lastError(), -1155);
    EXPECT_EQ(GVUSB_OpenDevice(0xA1), firstHandle);
}

TEST_F(OpeningTest, OfEqualDeviceIdsOnlyTheFirstIsOpened) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::plug("dev2", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    EXPECT_EQ(GVUSB_OpenDevice(0xA1), firstHandle);
    EXPECT_EQ(g_GvUsbMan.OpenDevice(1), firstHandle);
    EXPECT_EQ(g_GvUsbMan.OpenAllDevices(), 0);
    EXPECT_EQ(fake::openHandles("dev1"), 1);
    EXPECT_EQ(fake::openHandles("dev2"), 0);
    EXPECT_EQ(deviceList().size(), 1u);
}

TEST_F(OpeningTest, ReaderWithDeviceIdZeroIsInTheDeviceListOnce) {
    fake::plug("dev1", fake::bulkReader("0"));
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    EXPECT_EQ(GVUSB_OpenDevice(0), firstHandle);
    EXPECT_EQ(GVUSB_OpenDevice(0), firstHandle);
    EXPECT_EQ(g_GvUsbMan.OpenDevice(0), firstHandle);
    EXPECT_EQ(g_GvUsbMan.OpenAllDevices(), 0);
    EXPECT_EQ(deviceList().size(), 1u);
    EXPECT_EQ(fake::openHandles("dev1"), 1);
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle), 0);
    EXPECT_EQ(GVUSB_GetDeviceList(0), 0);
    EXPECT_EQ(fake::openHandles("dev1"), 0);
}

TEST_F(OpeningTest, OpeningIsLoggedAtItsLevels) {
    scanThree();
    LogAt log(0);
    EXPECT_EQ(GVUSB_OpenDevice(0xA1), firstHandle);
    EXPECT_THAT(log.takeLines(), IsEmpty());
    GVLOG_SetLevel(1);
    EXPECT_EQ(GVUSB_OpenDevice(0xA2), firstHandle + 1);
    const std::string dev1 = "[device-list] dev0: " + deviceText(firstHandle, 0xA1, "dev1", false);
    const std::string dev2 = "[device-list] dev1: " + deviceText(firstHandle + 1, 0xA2, "dev2", false);
    EXPECT_THAT(log.takeLines(), ElementsAre("[open device] devId=0xa2: ok", dev1, dev2));
    GVLOG_SetLevel(3);
    EXPECT_EQ(g_GvUsbMan.OpenDevice(2), firstHandle + 2);
    EXPECT_THAT(log.takeLines(),
                ElementsAre("[open] devHnd=0x10000003 devId=0xa3: ok", "[open device] devId=0xa3: ok", dev1,
                            dev2, "[device-list] dev2: " + deviceText(firstHandle + 2, 0xA3, "dev3", false)));
}

TEST_F(OpeningTest, FailureIsLoggedAtItsLevels) {
    scanThree();
    fake::failAlways("libusb_open", LIBUSB_ERROR_ACCESS);
    for (const Way& way : {byId, byIndex}) {
        LogAt log(0);
        way.open();
        EXPECT_THAT(log.takeLines(), IsEmpty());
        GVLOG_SetLevel(1);
        way.open();
        EXPECT_THAT(log.takeLines(), ElementsAre("[open device] devId=0xa2: return-code=-1143"));
        GVLOG_SetLevel(2);
        way.open();
        EXPECT_THAT(log.takeLines(), ElementsAre("[open] libusb_open returned -3",
                                                 "[open device] devId=0xa2: return-code=-1143"));
    }
}

TEST_F(OpeningTest, OnlyTheDeviceListMutexIsHeld) {
    scanThree();
    int calls = 0;
    fake::setHook([&](std::string_view function, std::string_view) {
        ++calls;
        EXPECT_TRUE(isGuarded(function));
        EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxScanList));
    });
    GVUSB_OpenDevice(0xA1);
    g_GvUsbMan.OpenDevice(1);
    g_GvUsbMan.OpenAllDevices();
    fake::setHook({});
    EXPECT_EQ(calls, 9);
    EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxDevList));
    Mutex& mutex = g_GvUsbMan.m_mtxDevList;
    EXPECT_TRUE(waitsFor(mutex, [] { GVUSB_OpenDevice(0xBEEF); }));
    EXPECT_TRUE(waitsFor(mutex, [] { g_GvUsbMan.OpenDevice(7); }));
    EXPECT_TRUE(waitsFor(mutex, [] { g_GvUsbMan.OpenAllDevices(); }));
}

TEST_F(OpeningTest, EveryAllocationOfAnOpeningMayFail) {
    if (!support::allocationsAreWatched) {
        GTEST_SKIP() << "the sanitizer replaces operator new";
    }
    const Way all = {"all", [] { return g_GvUsbMan.OpenAllDevices(); }};
    for (const Way& way : {byId, byIndex, all}) {
        for (const int level : {0, 2}) {
            bool failed = true;
            std::size_t n = 1;
            for (; failed; ++n) {
                SCOPED_TRACE(testing::Message() << way.name << " at level " << level << ", " << n);
                reload();
                scanThree();
                LogAt log(level);
                {
                    const auto failure = support::failAllocation(n);
                    try {
                        way.open();
                    } catch (const std::bad_alloc&) {
                    }
                    failed = failure.happened();
                }
                expectConsistentLists({"dev1", "dev2", "dev3"});
                EXPECT_EQ(byId.open(), firstHandle + 1);
                EXPECT_EQ(GVUSB_IsDevicePresent(firstHandle + 1), 1);
            }
            EXPECT_GT(n, level == 0 ? 2u : 5u);
        }
    }
}
