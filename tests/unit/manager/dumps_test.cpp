#include "manager_lists.h"
#include "manager_test.h"

#include <cstddef>
#include <cstring>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class DumpsTest : public ManagerTest {
protected:
    static GVDevice* record(const std::string& name, int devHnd, unsigned devId, bool owner) {
        auto* device = new GVDevice(devHnd, fake::plug(name, fake::bulkReader()));
        device->devId = devId;
        device->owner = owner;
        return device;
    }

    static Lines searchLines(GVUSB_SCANSEARCH* search) {
        LogAt log(1);
        g_GvUsbMan.logScanSearchOpt(search);
        return log.takeLines();
    }

    static Lines deviceLines(const fake::FakeReader& reader) {
        libusb_device* const dev = fake::plug("dev1", reader);
        libusb_device_descriptor descriptor = {};
        libusb_get_device_descriptor(dev, &descriptor);
        LogAt log(1);
        g_GvUsbMan.logDevice(dev, &descriptor);
        return log.takeLines();
    }

    static Lines listLines() {
        LogAt log(1);
        const MutexLock lock(g_GvUsbMan.m_mtxDevList);
        g_GvUsbMan.logScanList();
        g_GvUsbMan.logDeviceList();
        return log.takeLines();
    }
};

} // namespace

TEST_F(DumpsTest, SearchWithoutRecordIsLoggedAsAll) {
    EXPECT_THAT(searchLines(nullptr), ElementsAre("[search-opt] all"));
}

TEST_F(DumpsTest, SearchRecordIsLoggedCompletelyForAnyMask) {
    GVUSB_SCANSEARCH search = {};
    std::strcpy(search.famName, "FAM");
    std::strcpy(search.devName, "DEV NAME");
    std::strcpy(search.devId, "0xAb");
    for (const int mask : {0, 1, 4, 16, -1}) {
        search.mask = mask;
        EXPECT_THAT(searchLines(&search), ElementsAre("[search-opt] mask=" + std::to_string(mask) +
                                                      " devId=0x0xAb devName=DEV NAME famName=FAM"));
    }
}

TEST_F(DumpsTest, EmptySearchFieldsAreLoggedAsEmpty) {
    GVUSB_SCANSEARCH search = {};
    EXPECT_THAT(searchLines(&search), ElementsAre("[search-opt] mask=0 devId=0x devName= famName="));
}

TEST_F(DumpsTest, NamesThatFillTheirFieldsEndWithTheField) {
    GVUSB_SCANSEARCH search = {};
    std::memset(search.famName, 'f', sizeof search.famName);
    std::memset(search.devName, 'd', sizeof search.devName);
    search.devId[0] = '1';
    EXPECT_THAT(searchLines(&search), ElementsAre("[search-opt] mask=0 devId=0x1 devName=" +
                                                  std::string(50, 'd') + " famName=" + std::string(25, 'f')));
}

TEST_F(DumpsTest, DeviceIdThatIsLongerThanItsFieldIsLoggedUpTo255Characters) {
    union {
        GVUSB_SCANSEARCH search;
        char bytes[offsetof(GVUSB_SCANSEARCH, devId) + 300];
    } memory = {};
    std::memset(memory.bytes + offsetof(GVUSB_SCANSEARCH, devId), 'x', 100);
    EXPECT_THAT(searchLines(&memory.search),
                ElementsAre("[search-opt] mask=0 devId=0x" + std::string(100, 'x') + " devName= famName="));
    std::memset(memory.bytes + offsetof(GVUSB_SCANSEARCH, devId), 'x', 300);
    EXPECT_THAT(searchLines(&memory.search),
                ElementsAre("[search-opt] mask=0 devId=0x" + std::string(255, 'x') + " devName= famName="));
}

TEST_F(DumpsTest, DeviceOfTheVendorIsMarked) {
    fake::FakeReader reader = fake::bulkReader();
    reader.product = 26;
    reader.bus = 17;
    reader.address = 101;
    EXPECT_THAT(deviceLines(reader), ElementsAre("[scan] device: vendor=0x" + hex(GVUSB_VENDOR_ID) +
                                                 " prod=26 bus=17 busAddr=101   GAVO"));
}

TEST_F(DumpsTest, DeviceOfAnotherVendorIsNotMarked) {
    fake::FakeReader reader = fake::foreignDevice();
    reader.vendor = 0xAB;
    reader.product = 65535;
    reader.bus = 255;
    EXPECT_THAT(deviceLines(reader), ElementsAre("[scan] device: vendor=0xab prod=65535 bus=255 busAddr=1"));
}

TEST_F(DumpsTest, EmptyListsHaveNoDevices) {
    EXPECT_THAT(listLines(), ElementsAre("[scan-list] no devices", "[device-list] no devices"));
}

TEST_F(DumpsTest, ListsShowEachEntryInOrder) {
    GVDevice* const open = record("dev1", 0x10000001, 0x1A2B3C, false);
    GVDevice* const closed = record("dev2", 0x1ABCDEF0, 0xFFFFFFFF, true);
    setScanList({closed, nullptr, open});
    setDeviceList({nullptr, open});
    EXPECT_THAT(listLines(),
                ElementsAre("[scan-list] dev0: " + deviceText(0x1ABCDEF0, 0xFFFFFFFF, "dev2", true),
                            "[scan-list] dev1 is NULL",
                            "[scan-list] dev2: " + deviceText(0x10000001, 0x1A2B3C, "dev1", false),
                            "[device-list] dev0 is NULL",
                            "[device-list] dev1: " + deviceText(0x10000001, 0x1A2B3C, "dev1", false)));
}

TEST_F(DumpsTest, IndexesAreDecimal) {
    Devices devices(11, nullptr);
    devices.push_back(record("dev1", 1, 0, true));
    setScanList(devices);
    const Lines lines = listLines();
    ASSERT_EQ(lines.size(), 13u);
    EXPECT_EQ(lines[10], "[scan-list] dev10 is NULL");
    EXPECT_EQ(lines[11], "[scan-list] dev11: " + deviceText(1, 0, "dev1", true));
}

TEST_F(DumpsTest, NothingIsLoggedOrQueriedAtLevelZero) {
    libusb_device* const dev = fake::plug("dev1", fake::bulkReader());
    libusb_device_descriptor descriptor = {};
    setScanList({nullptr});
    setDeviceList({nullptr});
    fake::takeCalls();
    for (const int level : {0, -1}) {
        LogAt log(level);
        g_GvUsbMan.logScanSearchOpt(nullptr);
        g_GvUsbMan.logDevice(dev, &descriptor);
        const MutexLock lock(g_GvUsbMan.m_mtxDevList);
        g_GvUsbMan.logScanList();
        g_GvUsbMan.logDeviceList();
        EXPECT_THAT(log.takeLines(), IsEmpty());
    }
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}
