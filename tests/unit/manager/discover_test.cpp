#include "manager_lists.h"
#include "manager_test.h"

#include <cstring>
#include <new>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

namespace {

class DiscoverTest : public ManagerTest {
protected:
    static int scan() { return g_GvUsbMan.DiscoverDevices(nullptr); }

    static GVUSB_SCANSEARCH record(int mask, const char* famName, const char* devName, const char* devId) {
        GVUSB_SCANSEARCH made = {};
        made.mask = mask;
        std::strcpy(made.famName, famName);
        std::strcpy(made.devName, devName);
        std::strcpy(made.devId, devId);
        return made;
    }

    static std::vector<unsigned> found(GVUSB_SCANSEARCH search) {
        const int count = g_GvUsbMan.DiscoverDevices(&search);
        const std::vector<unsigned> ids = deviceIds(scanList());
        EXPECT_EQ(static_cast<std::size_t>(count), ids.size());
        return ids;
    }

    static int nextHandle() {
        const MutexLock lock(g_GvUsbMan.m_mtxDevList);
        return firstHandle + g_GvUsbMan.m_iHandleCounter;
    }
};

} // namespace

TEST_F(DiscoverTest, ScanIdentifiesOnlyNewReaders) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    fake::plug("lamp", fake::foreignDevice());
    fake::plug("dev2", fake::controlReader("A2"));
    fake::takeCalls();

    EXPECT_EQ(scan(), 2);
    EXPECT_EQ(fake::takeCallText(), "libusb_get_device_list(default) = 3\n"
                                    "libusb_get_device_descriptor(dev1) = 0\n"
                                    "libusb_get_device_descriptor(lamp) = 0\n"
                                    "libusb_get_device_descriptor(dev2) = 0\n"
                                    "libusb_ref_device(dev2)\n"
                                    "libusb_get_bus_number(dev2) = 1\n"
                                    "libusb_get_device_address(dev2) = 3\n"
                                    "libusb_open(dev2) = 0\n"
                                    "libusb_get_string_descriptor_ascii(hnd2, 1, 256) = 2\n"
                                    "libusb_get_string_descriptor_ascii(hnd2, 3, 256) = 7\n"
                                    "libusb_get_string_descriptor_ascii(hnd2, 5, 256) = 10\n"
                                    "libusb_get_string_descriptor_ascii(hnd2, 6, 256) = 9\n"
                                    "libusb_release_interface(hnd2, 0) = -5\n"
                                    "libusb_close(hnd2)\n"
                                    "libusb_free_device_list(list, 1)\n");
}

TEST_F(DiscoverTest, FormerReadersAreDestroyedBeforeTheBusIsListed) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(scan(), 1);
    fake::unplug("dev1");
    fake::takeCalls();
    EXPECT_EQ(scan(), 0);
    // In parallel mode, other threads see the former list until the new one is complete.
    EXPECT_EQ(fake::takeCallText(), support::inParallelSuite() ? "libusb_get_device_list(default) = 0\n"
                                                                 "libusb_unref_device(dev1)\n"
                                                                 "libusb_free_device_list(list, 1)\n"
                                                               : "libusb_unref_device(dev1)\n"
                                                                 "libusb_get_device_list(default) = 0\n"
                                                                 "libusb_free_device_list(list, 1)\n");
}

TEST_F(DiscoverTest, ReadersAreInBusOrderAlsoWithEqualDeviceIds) {
    fake::plug("dev1", fake::bulkReader("FF"));
    fake::plug("dev2", fake::bulkReader("1"));
    fake::plug("dev3", fake::bulkReader("FF"));
    EXPECT_EQ(scan(), 3);
    EXPECT_THAT(deviceIds(scanList()), ElementsAre(0xFF, 1, 0xFF));
    for (const GVDevice* device : scanList()) {
        EXPECT_TRUE(device->owner);
    }
}

TEST_F(DiscoverTest, OpenReaderKeepsRecordHandleAndStateWhenItIsFoundAgain) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::plug("dev2", fake::bulkReader("A2"));
    ASSERT_EQ(scan(), 2);
    ASSERT_EQ(GVUSB_OpenDevice(0xA2), firstHandle + 1);
    GVDevice* const open = deviceList().at(0);

    EXPECT_EQ(scan(), 2);
    EXPECT_EQ(scanList().at(1), open);
    EXPECT_THAT(deviceList(), ElementsAre(open));
    EXPECT_FALSE(open->owner);
    EXPECT_TRUE(isOpen(*open));
    EXPECT_EQ(open->devHnd, firstHandle + 1);
    EXPECT_EQ(scanList().at(0)->devHnd, firstHandle + 2) << "the closed one is another record now";
}

TEST_F(DiscoverTest, OpenReaderThatDoesNotMatchIsRemovedOnlyFromTheScanList) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    EXPECT_THAT(found(record(GVUSB_SEARCH_DEVICE_ID, "", "", "A2")), IsEmpty());
    EXPECT_EQ(GVUSB_IsDevicePresent(firstHandle), 1);
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle), 0);
    EXPECT_EQ(fake::references("dev1"), 0);
}

TEST_F(DiscoverTest, ReaderClosedInTheMeantimeIsIdentifiedAnew) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    ASSERT_EQ(GVUSB_CloseDevice(firstHandle), 0);
    fake::setString("dev1", 1, "B1");
    EXPECT_EQ(scan(), 1);
    EXPECT_EQ(scanList().at(0)->devId, 0xB1u);
    EXPECT_EQ(scanList().at(0)->devHnd, firstHandle + 1);
    EXPECT_EQ(fake::references("dev1"), 1);
}

TEST_F(DiscoverTest, ReaderThatCannotBeIdentifiedIsSkipped) {
    struct Case {
        const char* name;
        void (*break_)();
    };
    for (const Case& each : {
             Case{"open", [] { fake::failNext("libusb_open", LIBUSB_ERROR_ACCESS, "dev2"); }},
             Case{"device ID", [] { fake::setString("dev2", 1, LIBUSB_ERROR_IO); }},
             Case{"no number", [] { fake::setString("dev2", 1, "xyz"); }},
             Case{"family", [] { fake::setString("dev2", 3, LIBUSB_ERROR_TIMEOUT); }},
             Case{"name", [] { fake::setString("dev2", 5, LIBUSB_ERROR_PIPE); }},
             Case{"type", [] { fake::setString("dev2", 6, LIBUSB_ERROR_NO_DEVICE); }},
         }) {
        SCOPED_TRACE(each.name);
        restart(quiet);
        fake::plug("dev1", fake::bulkReader("A1"));
        fake::plug("dev2", fake::bulkReader("A2"));
        fake::plug("dev3", fake::bulkReader("A3"));
        each.break_();
        EXPECT_EQ(scan(), 2);
        EXPECT_THAT(deviceIds(scanList()), ElementsAre(0xA1, 0xA3));
        EXPECT_EQ(fake::references("dev2"), 0);
        EXPECT_EQ(fake::openHandles("dev2"), 0);
        EXPECT_EQ(scanList().at(1)->devHnd, firstHandle + 2) << "the handle of the skipped one stays used";
    }
}

TEST_F(DiscoverTest, HandleOfAnUnwantedReaderStaysUsed) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::plug("dev2", fake::bulkReader("A2"));
    EXPECT_THAT(found(record(GVUSB_SEARCH_DEVICE_ID, "", "", "A2")), ElementsAre(0xA2));
    EXPECT_EQ(scanList().at(0)->devHnd, firstHandle + 1);
    EXPECT_EQ(fake::references("dev1"), 0);
    EXPECT_EQ(nextHandle(), firstHandle + 2);
}

TEST_F(DiscoverTest, OnlyOneCriterionIsUsed) {
    fake::FakeReader other = fake::controlReader("A2");
    other.strings[3] = "MOBILE";
    other.strings[5] = "READER TWO";
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::plug("dev2", other);

    struct Row {
        int mask;
        const char* famName;
        const char* devName;
        const char* devId;
        std::vector<unsigned> found;
    };
    for (const Row& row : std::initializer_list<Row>{
             {0x1, "MOBILE", "READER ONE", "A1", {0xA2}},
             {0x1, "mobile", "READER TWO", "A2", {}},
             {0x1, "MOBIL", "READER TWO", "A2", {}},
             {0x1, "", "READER TWO", "A2", {}},
             {0x2, "DESKTOP", "READER TWO", "A1", {0xA2}},
             {0x2, "MOBILE", "reader two", "A2", {}},
             {0x4, "DESKTOP", "READER ONE", "A2", {0xA2}},
             {0x4, "", "", "0xa2", {0xA2}},
             {0x4, "", "", " 00A2 and more", {0xA2}},
             {0x4, "", "", "", {}},
             {0x4, "", "", "READER", {}},
             {0x3, "MOBILE", "READER ONE", "A1", {0xA2}},
             {0x5, "MOBILE", "READER ONE", "A1", {0xA2}},
             {0x7, "DESKTOP", "READER TWO", "A2", {0xA1}},
             {0x6, "DESKTOP", "READER TWO", "A1", {0xA2}},
             {0xC, "DESKTOP", "READER ONE", "A2", {0xA2}},
             {0x8, "DESKTOP", "READER ONE", "A1", {}},
             {0x0, "DESKTOP", "READER ONE", "A1", {}},
             {-8, "DESKTOP", "READER ONE", "A1", {}},
             {-1, "MOBILE", "READER ONE", "A1", {0xA2}},
         }) {
        SCOPED_TRACE(testing::Message()
                     << row.mask << " " << row.famName << " " << row.devName << " " << row.devId);
        // The search does not depend on whether a reader is open.
        EXPECT_EQ(found(record(row.mask, row.famName, row.devName, row.devId)), row.found);
        ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
        EXPECT_EQ(found(record(row.mask, row.famName, row.devName, row.devId)), row.found);
        for (const int devHnd : openHandlesInOrder()) {
            GVUSB_CloseDevice(devHnd);
        }
    }
}

TEST_F(DiscoverTest, DeviceIdZeroIsFoundByItsNumberOnly) {
    fake::plug("dev1", fake::bulkReader("0"));
    EXPECT_THAT(found(record(0x4, "", "", "0")), ElementsAre(0u));
    EXPECT_THAT(found(record(0x4, "", "", "none")), IsEmpty());
}

TEST_F(DiscoverTest, FailedOrEmptyEnumerationEmptiesTheScanList) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(scan(), 1);
    fake::takeCalls();
    fake::failNext("libusb_get_device_list", LIBUSB_ERROR_NO_MEM);
    EXPECT_EQ(scan(), 0);
    EXPECT_THAT(scanList(), IsEmpty());
    EXPECT_EQ(fake::takeCallText(), support::inParallelSuite() ? "libusb_get_device_list(default) = -11\n"
                                                                 "libusb_unref_device(dev1)\n"
                                                               : "libusb_unref_device(dev1)\n"
                                                                 "libusb_get_device_list(default) = -11\n");
}

TEST_F(DiscoverTest, DeviceWithoutReadableDescriptorIsNotUsable) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::failNext("libusb_get_device_descriptor", LIBUSB_ERROR_IO, "dev1");
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(fake::timesCalled("libusb_open"), 0u);
}

TEST_F(DiscoverTest, ReopenedReaderReplacesItsFormerRecord) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::plug("dev2", fake::bulkReader("A2"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    fake::replug("dev1", "dev3");
    EXPECT_EQ(scan(), 2);
    EXPECT_THAT(deviceIds(scanList()), ElementsAre(0xA2, 0xA1));
    EXPECT_THAT(openHandlesInOrder(), ElementsAre(firstHandle, firstHandle + 1));
    EXPECT_EQ(deviceList().at(0), scanList().at(1));
    EXPECT_FALSE(scanList().at(1)->owner);
    EXPECT_EQ(GVUSB_IsDevicePresent(firstHandle), 1);
    EXPECT_EQ(fake::openHandles("dev3"), 1);
    EXPECT_EQ(fake::leftovers(), "dev2: 1 reference\nhnd2: open\n"
                                 "dev3: 1 reference\nhnd3: open\n"
                                 "libusb_init: 1 without libusb_exit\n");
}

TEST_F(DiscoverTest, ListOfTheBusIsReleasedLast) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    fake::replug("dev1", "dev2");
    fake::takeCalls();
    EXPECT_EQ(scan(), 1);
    const std::string calls = fake::takeCallText();
    EXPECT_THAT(calls, EndsWith("libusb_unref_device(dev1)\n"
                                "libusb_open(dev2) = 0\n"
                                "libusb_get_config_descriptor(dev2, 0) = 0\n"
                                "libusb_free_config_descriptor(config of dev2)\n"
                                "libusb_free_device_list(list, 1)\n"));
}

TEST_F(DiscoverTest, ScanWithoutAReaderKeepsTheOpenOnesUntouched) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    fake::unplug("dev1");
    EXPECT_EQ(scan(), 0);
    EXPECT_THAT(openHandlesInOrder(), ElementsAre(firstHandle));
    EXPECT_EQ(GVUSB_IsDevicePresent(firstHandle), 0);
}

TEST_F(DiscoverTest, SecondReaderWithTheIdOfAnOpenOneReplacesIt) {
    for (const bool openFirst : {true, false}) {
        SCOPED_TRACE(openFirst);
        restart(quiet);
        fake::plug("dev1", fake::bulkReader(openFirst ? "A1" : "B1"));
        fake::plug("dev2", fake::bulkReader(openFirst ? "B1" : "A1"));
        ASSERT_EQ(scan(), 2);
        ASSERT_GT(GVUSB_OpenDevice(0xA1), 0);
        const int devHnd = GVUSB_GetDeviceHnd(0xA1);
        fake::setString(openFirst ? "dev2" : "dev1", 1, "A1");

        EXPECT_EQ(scan(), 2);
        const std::size_t newIndex = openFirst ? 1 : 0;
        EXPECT_EQ(scanList().at(1 - newIndex), nullptr) << "the record that stood there is gone";
        EXPECT_THAT(deviceList(), ElementsAre(scanList().at(newIndex)));
        EXPECT_EQ(scanList().at(newIndex)->devHnd, devHnd);
        EXPECT_EQ(fake::references(openFirst ? "dev1" : "dev2"), 0);
        EXPECT_EQ(GVUSB_IsDevicePresent(devHnd), 1);
    }
}

TEST_F(DiscoverTest, OpenReadersWithTheSameIdBecomeOneRecord) {
    fake::plug("dev1", fake::bulkReader("0"));
    fake::plug("dev2", fake::bulkReader("0"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    ASSERT_THAT(openHandlesInOrder(), ElementsAre(firstHandle, firstHandle + 1));
    GVDevice* const first = deviceList().at(0);
    EXPECT_EQ(scan(), 2);
    EXPECT_THAT(scanList(), ElementsAre(first, nullptr));
    EXPECT_THAT(deviceList(), ElementsAre(nullptr, first));
    EXPECT_EQ(first->devHnd, firstHandle + 1);
    EXPECT_EQ(GVUSB_IsDevicePresent(firstHandle + 1), 1);
    EXPECT_EQ(fake::references("dev2"), 0);
}

TEST_F(DiscoverTest, WithoutLibusbAScanFindsNothingAndCallsNothing) {
    g_GvUsbMan.~GVDrvHnd();
    fake::reset();
    fake::failNext("libusb_init", LIBUSB_ERROR_OTHER);
    new (&g_GvUsbMan) GVDrvHnd;
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::takeCalls();
    LogAt log(1);
    EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), -1112);
    g_GvUsbMan.UpdateDevices();
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    EXPECT_THAT(log.takeLines(),
                ElementsAre("[search-opt] all", "[scan] numDev=0", "[scan-list] no devices"));
}
