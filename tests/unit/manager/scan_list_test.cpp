#include "manager_lists.h"
#include "manager_test.h"
#include "mutex_probe.h"

#include <climits>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ScanListTest : public ManagerTest {
protected:
    static void scanTwo() {
        fake::FakeReader other = fake::controlReader("4D5E6F");
        other.strings[3] = "MOBILE";
        other.strings[5] = "READER TWO";
        other.strings[6] = "TESK RCI2 B";
        fake::plug("dev1", fake::bulkReader("1A2B3C"));
        fake::plug("dev2", other);
        EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
        fake::takeCalls();
    }

    static std::string read(int index, const char* key) {
        char value[GVUSB_PARAMETER_SIZE] = "untouched";
        const int code = GVUSB_GetScanListPara(index, key, value);
        EXPECT_EQ(lastError(), code);
        return code == 0 ? value : std::to_string(code) + " " + value;
    }
};

} // namespace

TEST_F(ScanListTest, ParametersAreThoseOfTheEntry) {
    scanTwo();
    EXPECT_EQ(read(0, "DEVICE-ID"), "1A2B3C");
    EXPECT_EQ(read(1, "DEVICE-ID"), "4D5E6F");
    EXPECT_EQ(read(0, "familyname"), "DESKTOP");
    EXPECT_EQ(read(1, "familyname"), "MOBILE");
    EXPECT_EQ(read(1, "DeviceName"), "READER TWO");
    EXPECT_EQ(read(1, "INTERFACE"), "TESK-RCI2-B");
    EXPECT_EQ(read(1, "TIMEOUT"), "1000");
    EXPECT_EQ(read(1, "DEVICEHND"), "0");
    EXPECT_EQ(GVUSB_OpenDevice(0x4D5E6F), firstHandle + 1);
    EXPECT_EQ(read(1, "DEVICEHND"), std::to_string(firstHandle + 1));
    EXPECT_EQ(read(1, "TYPENUMBER"), "17");
}

TEST_F(ScanListTest, ParameterFailuresAreReturnedAndRecorded) {
    scanTwo();
    EXPECT_EQ(read(0, "TYPENUMBER"), "-1144 untouched");
    EXPECT_EQ(read(0, "NO-SUCH-KEY"), "-1150 untouched");
    EXPECT_EQ(read(0, ""), "-1150 untouched");
}

TEST_F(ScanListTest, ParameterOfAnIndexOutsideTheListIsAPositiveCode) {
    EXPECT_EQ(read(0, "DEVICE-ID"), "1115 untouched");
    scanTwo();
    for (const int index : {-1, 2, 3, INT_MIN, INT_MAX}) {
        g_GvUsbMan.SetLastError(0);
        EXPECT_EQ(read(index, "DEVICE-ID"), "1115 untouched") << index;
    }
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_F(ScanListTest, ParameterOfAHoleIsAPositiveCode) {
    scanTwo();
    Devices devices = scanList();
    devices.insert(devices.begin(), nullptr);
    setScanList(devices);
    EXPECT_EQ(read(0, "DEVICE-ID"), "1115 untouched");
    EXPECT_EQ(read(1, "DEVICE-ID"), "1A2B3C");
}

TEST_F(ScanListTest, ParameterRequestsWithoutKeyOrValueAreRefused) {
    scanTwo();
    char value[GVUSB_PARAMETER_SIZE] = {};
    EXPECT_EQ(GVUSB_GetScanListPara(0, nullptr, value), -1102);
    EXPECT_EQ(lastError(), -1102);
    g_GvUsbMan.SetLastError(0);
    EXPECT_EQ(GVUSB_GetScanListPara(-1, "DEVICE-ID", nullptr), -1102);
    EXPECT_EQ(lastError(), -1102);
}

TEST_F(ScanListTest, SizeClearsTheLastErrorAndIsLogged) {
    LogAt log(1);
    g_GvUsbMan.SetLastError(-1111);
    EXPECT_EQ(g_GvUsbMan.GetScanListSize(), 0);
    EXPECT_EQ(lastError(), 0);
    EXPECT_THAT(log.takeLines(), ElementsAre("[scan-list] size=0"));
    scanTwo();
    log.takeLines();
    EXPECT_EQ(g_GvUsbMan.GetScanListSize(), 2);
    EXPECT_THAT(log.takeLines(), ElementsAre("[scan-list] size=2"));
    GVLOG_SetLevel(0);
    EXPECT_EQ(g_GvUsbMan.GetScanListSize(), 2);
    EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(ScanListTest, SizeIsLoggedInDecimalAndCountsHoles) {
    setScanList(Devices(12, nullptr));
    LogAt log(1);
    EXPECT_EQ(GVUSB_GetScanListSize(), 12);
    EXPECT_THAT(log.takeLines(), ElementsAre("[scan-list] size=12"));
}

TEST_F(ScanListTest, ClearingDestroysClosedReadersAndKeepsOpenOnes) {
    scanTwo();
    const int devHnd = GVUSB_OpenDevice(0x4D5E6F);
    fake::takeCalls();
    g_GvUsbMan.SetLastError(-1111);
    LogAt log(3);
    g_GvUsbMan.ClearScanList();
    EXPECT_THAT(log.takeLines(), IsEmpty());
    EXPECT_EQ(lastError(), -1111);
    EXPECT_EQ(fake::takeCallText(), "libusb_unref_device(dev1)\n");
    EXPECT_THAT(scanList(), IsEmpty());
    EXPECT_EQ(fake::references("dev1"), 0);
    EXPECT_EQ(GVUSB_IsDevicePresent(devHnd), 1);
    EXPECT_FALSE(deviceList().at(0)->owner);
}

TEST_F(ScanListTest, ClearingSkipsHolesAndMayBeRepeated) {
    scanTwo();
    Devices devices = scanList();
    devices.insert(devices.begin(), nullptr);
    devices.push_back(nullptr);
    setScanList(devices);
    g_GvUsbMan.SetLastError(-1111);
    EXPECT_EQ(GVUSB_ClearScanList(), 0);
    EXPECT_EQ(lastError(), 0);
    EXPECT_EQ(fake::leftovers(), "libusb_init: 1 without libusb_exit\n");
    EXPECT_EQ(GVUSB_ClearScanList(), 0);
    EXPECT_EQ(GVUSB_GetScanListSize(), 0);
}

TEST_F(ScanListTest, LookupsGiveTheFirstMatchAndSkipHoles) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::plug("dev2", fake::bulkReader("A1"));
    fake::plug("dev3", fake::bulkReader("0"));
    libusb_device* const foreign = fake::plug("lamp", fake::foreignDevice());
    EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    Devices devices = scanList();
    devices.insert(devices.begin(), nullptr);
    setScanList(devices);

    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    EXPECT_EQ(g_GvUsbMan.SL_DeviceOfUsbDev(fake::device("dev1")), devices[1]);
    EXPECT_EQ(g_GvUsbMan.SL_DeviceOfUsbDev(fake::device("dev2")), devices[2]);
    EXPECT_EQ(g_GvUsbMan.SL_DeviceOfUsbDev(foreign), nullptr);
    EXPECT_EQ(g_GvUsbMan.SL_IndexOfDevId(0xA1), 1);
    EXPECT_EQ(g_GvUsbMan.SL_IndexOfDevId(0xA2), -1);
    EXPECT_EQ(g_GvUsbMan.SL_IndexOfDevId(0), -1) << "even if a reader has that device ID";
}

TEST_F(ScanListTest, LookupsInAnEmptyListFindNothing) {
    libusb_device* const dev = fake::plug("dev1", fake::bulkReader("A1"));
    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    EXPECT_EQ(g_GvUsbMan.SL_DeviceOfUsbDev(dev), nullptr);
    EXPECT_EQ(g_GvUsbMan.SL_IndexOfDevId(0xA1), -1);
}

TEST_F(ScanListTest, MembersWaitForTheDeviceListMutexOnly) {
    scanTwo();
    const auto readParameter = [] {
        char value[GVUSB_PARAMETER_SIZE] = {};
        g_GvUsbMan.GetScanListPara(0, "DEVICE-ID", value);
    };
    Mutex& listMutex = g_GvUsbMan.m_mtxDevList;
    EXPECT_TRUE(waitsFor(listMutex, readParameter));
    EXPECT_TRUE(waitsFor(listMutex, [] { g_GvUsbMan.GetScanListSize(); }));
    EXPECT_TRUE(waitsFor(listMutex, [] { g_GvUsbMan.ClearScanList(); }));

    const MutexLock lock(g_GvUsbMan.m_mtxScanList);
    std::async(std::launch::async, [&] {
        readParameter();
        g_GvUsbMan.GetScanListSize();
        g_GvUsbMan.ClearScanList();
    }).get();
    EXPECT_FALSE(support::isHeld(listMutex));
}

TEST_F(ScanListTest, DeviceListMutexIsHeldWhileAParameterIsReadAndFreeAfterAnException) {
    scanTwo();
    GVUSB_OpenDevice(0x1A2B3C);
    char value[GVUSB_PARAMETER_SIZE] = {};
    fake::setHook([](std::string_view function, std::string_view) {
        EXPECT_TRUE(isGuarded(function));
        throw std::bad_alloc();
    });
    EXPECT_THROW(GVUSB_GetScanListPara(0, "TYPENUMBER", value), std::bad_alloc);
    fake::setHook({});
    EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxDevList));
}
