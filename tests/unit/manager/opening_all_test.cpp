// Opening every reader of the scan list.

#include "list_invariants.h"
#include "manager_test.h"

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class OpeningAllTest : public ManagerTest {
protected:
    static void scanThree() {
        for (const char* const name : {"dev1", "dev2", "dev3"}) {
            fake::plug(name, fake::bulkReader(std::string("A") + name[3]));
        }
        ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
        fake::takeCalls();
    }
};

std::string deviceLine(int index, int number) {
    return "[device-list] dev" + std::to_string(index) + ": " +
           deviceText(firstHandle + number - 1, 0xA0u + static_cast<unsigned>(number),
                      "dev" + std::to_string(number), false);
}

} // namespace

TEST_F(OpeningAllTest, EmptyListSucceedsAndIsDumped) {
    g_GvUsbMan.SetLastError(-1111);
    LogAt log(1);
    EXPECT_EQ(g_GvUsbMan.OpenAllDevices(), 0);
    EXPECT_EQ(lastError(), 0);
    EXPECT_THAT(log.takeLines(), ElementsAre("[device-list] no devices"));
}

TEST_F(OpeningAllTest, ReadersAreOpenedInOrderAndDumpedOnce) {
    scanThree();
    g_GvUsbMan.SetLastError(-1111);
    LogAt log(1);
    EXPECT_EQ(g_GvUsbMan.OpenAllDevices(), 0);
    EXPECT_EQ(lastError(), 0);
    EXPECT_THAT(log.takeLines(), ElementsAre("[open device] devId=0xa1: ok", "[open device] devId=0xa2: ok",
                                             "[open device] devId=0xa3: ok", deviceLine(0, 1),
                                             deviceLine(1, 2), deviceLine(2, 3)));
    for (const GVDevice* device : deviceList()) {
        EXPECT_FALSE(device->owner);
    }
    EXPECT_EQ(deviceList(), scanList());
}

TEST_F(OpeningAllTest, HolesAndOpenReadersAreSkipped) {
    scanThree();
    ASSERT_EQ(GVUSB_OpenDevice(0xA2), firstHandle + 1);
    Devices devices = scanList();
    devices.insert(devices.begin() + 1, nullptr);
    setScanList(devices);
    fake::takeCalls();
    fake::recordWithoutBookkeeping();
    EXPECT_EQ(g_GvUsbMan.OpenAllDevices(), 0);
    EXPECT_EQ(fake::takeCallText(), "libusb_open(dev1) = 0\n"
                                    "libusb_get_config_descriptor(dev1, 0) = 0\n"
                                    "libusb_open(dev3) = 0\n"
                                    "libusb_get_config_descriptor(dev3, 0) = 0\n");
    EXPECT_THAT(openHandlesInOrder(), ElementsAre(firstHandle + 1, firstHandle, firstHandle + 2));

    fake::takeCalls();
    LogAt log(1);
    EXPECT_EQ(g_GvUsbMan.OpenAllDevices(), 0);
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    EXPECT_THAT(log.takeLines(), ElementsAre(deviceLine(0, 2), deviceLine(1, 1), deviceLine(2, 3)));
}

TEST_F(OpeningAllTest, FailureOfAnyReaderIsReportedAndTheOthersAreOpened) {
    for (const unsigned bad : {1u, 2u, 3u}) {
        SCOPED_TRACE(bad);
        reload();
        scanThree();
        const std::string name = "dev" + std::to_string(bad);
        fake::failNext("libusb_get_config_descriptor", LIBUSB_ERROR_IO, name);
        LogAt log(1);
        EXPECT_EQ(g_GvUsbMan.OpenAllDevices(), -1167);
        EXPECT_EQ(lastError(), -1167);

        Lines lines;
        Lines dump;
        for (unsigned number = 1; number <= 3; ++number) {
            lines.push_back("[open device] devId=0xa" + std::to_string(number) +
                            (number == bad ? ": return-code=-1167" : ": ok"));
            if (number != bad) {
                dump.push_back(deviceLine(static_cast<int>(dump.size()), static_cast<int>(number)));
            }
        }
        lines.insert(lines.end(), dump.begin(), dump.end());
        EXPECT_EQ(log.takeLines(), lines);

        EXPECT_TRUE(scanList().at(bad - 1)->owner);
        expectConsistentLists({"dev1", "dev2", "dev3"});
        EXPECT_EQ(g_GvUsbMan.OpenAllDevices(), 0) << "the next attempt opens the remaining reader";
        EXPECT_EQ(deviceList().size(), 3u);
    }
}

TEST_F(OpeningAllTest, OfSeveralFailuresTheLastIsReported) {
    scanThree();
    fake::failNext("libusb_open", LIBUSB_ERROR_ACCESS, "dev1");
    fake::failNext("libusb_get_config_descriptor", LIBUSB_ERROR_IO, "dev2");
    EXPECT_EQ(g_GvUsbMan.OpenAllDevices(), -1167);
    EXPECT_EQ(lastError(), -1167);
    EXPECT_THAT(openHandlesInOrder(), ElementsAre(firstHandle + 2));
}

TEST_F(OpeningAllTest, FailureOfAllReadersLeavesAnEmptyList) {
    scanThree();
    fake::failAlways("libusb_open", LIBUSB_ERROR_NO_DEVICE);
    LogAt log(1);
    EXPECT_EQ(g_GvUsbMan.OpenAllDevices(), -1143);
    EXPECT_THAT(log.takeLines(),
                ElementsAre("[open device] devId=0xa1: return-code=-1143",
                            "[open device] devId=0xa2: return-code=-1143",
                            "[open device] devId=0xa3: return-code=-1143", "[device-list] no devices"));
}
