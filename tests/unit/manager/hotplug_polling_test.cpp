#include "list_invariants.h"
#include "manager_test.h"
#include "recorded_events.h"

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class HotPlugPollingTest : public ManagerTest {
protected:
    static void poll() { g_GvUsbMan.UpdateDevices(); }

    // Scans dev1 to dev3, with the device IDs A1 to A3; their handles start at the first one.
    static void scanThree() {
        for (const char* const name : {"dev1", "dev2", "dev3"}) {
            fake::plug(name, fake::bulkReader(std::string("A") + name[3]));
        }
        ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
        fake::takeCalls();
    }

    static int nextHandle() {
        const MutexLock lock(g_GvUsbMan.m_mtxDevList);
        return firstHandle + g_GvUsbMan.m_iHandleCounter;
    }

    RecordedEvents events;
};

} // namespace

TEST_F(HotPlugPollingTest, ReaderThatWasNeverScannedIsReportedOnceUntilTheNextScan) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::plug("dev2", fake::controlReader("A2"));
    poll();
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1", "connect hnd=0 id=a2"));
    EXPECT_THAT(scanList(), IsEmpty());
    EXPECT_THAT(deviceList(), IsEmpty());
    EXPECT_THAT(reportedConnects(), ElementsAre(0xA1, 0xA2));
    poll();
    fake::replug("dev1", "dev3");
    poll();
    EXPECT_THAT(events.take(), IsEmpty());

    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    GVUSB_ClearScanList();
    poll();
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a2", "connect hnd=0 id=a1"));
}

TEST_F(HotPlugPollingTest, OtherDevicesAreNotOpened) {
    fake::FakeReader otherProduct = fake::bulkReader("A9");
    otherProduct.product = 5;
    fake::plug("lamp", fake::foreignDevice());
    fake::plug("dev1", otherProduct);
    fake::takeCalls();
    poll();
    EXPECT_THAT(events.take(), IsEmpty());
    EXPECT_EQ(fake::takeCallText(), "libusb_get_device_list(default) = 2\n"
                                    "libusb_get_device_descriptor(lamp) = 0\n"
                                    "libusb_get_device_descriptor(dev1) = 0\n"
                                    "libusb_free_device_list(list, 1)\n");
}

TEST_F(HotPlugPollingTest, KnownReaderTakesOneDescriptorRead) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    fake::setString("dev1", 1, "B1");
    fake::takeCalls();
    poll();
    EXPECT_EQ(fake::takeCallText(), "libusb_get_device_list(default) = 1\n"
                                    "libusb_get_device_descriptor(dev1) = 0\n"
                                    "libusb_free_device_list(list, 1)\n");
    EXPECT_THAT(events.take(), IsEmpty());
    EXPECT_EQ(scanList().at(0)->updateMark, 1u);
    EXPECT_THAT(reportedConnects(), ElementsAre(0xA1));
}

TEST_F(HotPlugPollingTest, KnownReaderCountsAsReportedConnected) {
    scanThree();
    poll();
    GVUSB_ClearScanList();
    poll();
    EXPECT_THAT(events.take(), IsEmpty());
}

TEST_F(HotPlugPollingTest, OpenReaderThatLeftTheScanListCountsAsNew) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    GVUSB_ClearScanList();
    poll();
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1"));
    EXPECT_EQ(GVUSB_IsDevicePresent(firstHandle), 1);
}

TEST_F(HotPlugPollingTest, UnpluggedReaderIsReportedOnceWithHandleAndId) {
    scanThree();
    ASSERT_EQ(GVUSB_OpenDevice(0xA2), firstHandle + 1);
    fake::unplug("dev2");
    poll();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000002 id=a2"));
    EXPECT_THAT(reportedDisconnects(), ElementsAre(0xA2));
    poll();
    EXPECT_THAT(events.take(), IsEmpty());
    EXPECT_EQ(scanList().size(), 3u) << "it stays in the lists";
    EXPECT_EQ(GVUSB_GetDeviceHnd(0xA2), firstHandle + 1);

    fake::plug("dev4", fake::bulkReader("A2"));
    poll();
    fake::unplug("dev4");
    poll();
    EXPECT_THAT(events.take(), IsEmpty()) << "neither its return nor its second departure is reported";
}

TEST_F(HotPlugPollingTest, ScanBeginsANewPeriodForDisconnectsToo) {
    scanThree();
    fake::unplug("dev1");
    poll();
    ASSERT_EQ(events.take().size(), 1u);
    fake::plug("dev4", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    fake::unplug("dev4");
    poll();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000006 id=a1"));
}

TEST_F(HotPlugPollingTest, ReturnedOpenReaderKeepsHandleAndPositionAndIsReopened) {
    scanThree();
    ASSERT_EQ(GVUSB_OpenDevice(0xA2), firstHandle + 1);
    fake::unplug("dev2");
    poll();
    events.take();
    fake::plug("dev4", fake::bulkReader("A2"));
    fake::takeCalls();
    g_GvUsbMan.SetLastError(-1111);
    poll();
    EXPECT_THAT(events.take(), IsEmpty());
    EXPECT_EQ(lastError(), -1111);
    EXPECT_THAT(deviceIds(scanList()), ElementsAre(0xA1, 0xA2, 0xA3));
    GVDevice* const returned = scanList().at(1);
    EXPECT_THAT(deviceList(), ElementsAre(returned));
    EXPECT_EQ(returned->usbdev, fake::device("dev4"));
    EXPECT_EQ(returned->devHnd, firstHandle + 1);
    EXPECT_EQ(returned->updateMark, 0u);
    EXPECT_FALSE(returned->owner);
    EXPECT_EQ(nextHandle(), firstHandle + 4) << "the handle assigned to it is discarded";
    EXPECT_EQ(GVUSB_IsDevicePresent(firstHandle + 1), 1);
    EXPECT_EQ(fake::references("dev2"), 0);
    expectConsistentLists({"dev1", "dev2", "dev3", "dev4"});
}

TEST_F(HotPlugPollingTest, ReturnTakesTheseCallsInOrder) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    fake::replug("dev1", "dev2");
    fake::takeCalls();
    poll();
    EXPECT_EQ(fake::takeCallText(), "libusb_get_device_list(default) = 1\n"
                                    "libusb_get_device_descriptor(dev2) = 0\n"
                                    "libusb_open(dev2) = 0\n"
                                    "libusb_get_string_descriptor_ascii(hnd2, 1, 256) = 2\n"
                                    "libusb_close(hnd2)\n"
                                    "libusb_ref_device(dev2)\n"
                                    "libusb_get_bus_number(dev2) = 1\n"
                                    "libusb_get_device_address(dev2) = 2\n"
                                    "libusb_open(dev2) = 0\n"
                                    "libusb_get_string_descriptor_ascii(hnd2, 1, 256) = 2\n"
                                    "libusb_get_string_descriptor_ascii(hnd2, 3, 256) = 7\n"
                                    "libusb_get_string_descriptor_ascii(hnd2, 5, 256) = 10\n"
                                    "libusb_get_string_descriptor_ascii(hnd2, 6, 256) = 9\n"
                                    "libusb_release_interface(hnd2, 0) = -5\n"
                                    "libusb_close(hnd2)\n"
                                    "libusb_release_interface(hnd1, 0) = -5\n"
                                    "libusb_close(hnd1)\n"
                                    "libusb_unref_device(dev1)\n"
                                    "libusb_open(dev2) = 0\n"
                                    "libusb_get_config_descriptor(dev2, 0) = 0\n"
                                    "libusb_free_config_descriptor(config of dev2)\n"
                                    "libusb_free_device_list(list, 1)\n");
}

TEST_F(HotPlugPollingTest, ReturnWithinOneIntervalIsReportedAsADisconnect) {
    scanThree();
    ASSERT_EQ(GVUSB_OpenDevice(0xA2), firstHandle + 1);
    fake::replug("dev2", "dev4");
    fake::replug("dev3", "dev5");
    poll();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000002 id=a2", "disconnect hnd=10000005 id=a3"))
        << "an open reader has its handle, a closed one the new record's";
    poll();
    EXPECT_THAT(events.take(), IsEmpty());
    EXPECT_EQ(scanList().at(1)->updateMark, 1u);
}

TEST_F(HotPlugPollingTest, ReturnedClosedReaderIsANewRecordAtTheOldPosition) {
    scanThree();
    fake::replug("dev1", "dev4");
    poll();
    EXPECT_EQ(scanList().at(0)->devHnd, firstHandle + 3);
    EXPECT_TRUE(scanList().at(0)->owner);
    EXPECT_FALSE(isOpen(*scanList().at(0)));
    EXPECT_EQ(fake::references("dev1"), 0);
    EXPECT_EQ(GVUSB_OpenDevice(0xA1), firstHandle + 3);
}

TEST_F(HotPlugPollingTest, ReaderWithoutReadableIdIsIgnoredUntilItCanBeRead) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::setString("dev1", 1, LIBUSB_ERROR_IO);
    poll();
    fake::setString("dev1", 1, "0");
    poll();
    fake::setString("dev1", 1, "A1");
    fake::failNext("libusb_open", LIBUSB_ERROR_BUSY);
    poll();
    EXPECT_THAT(events.take(), IsEmpty());
    poll();
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1"));
}

TEST_F(HotPlugPollingTest, ReturnedReaderThatCannotBeIdentifiedIsRetried) {
    scanThree();
    ASSERT_EQ(GVUSB_OpenDevice(0xA1), firstHandle);
    GVDevice* const old = scanList().at(0);
    fake::replug("dev1", "dev4");
    fake::setString("dev4", 5, LIBUSB_ERROR_PIPE);
    poll();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000001 id=a1"));
    EXPECT_EQ(scanList().at(0), old);
    EXPECT_EQ(fake::references("dev4"), 0);
    EXPECT_EQ(nextHandle(), firstHandle + 4) << "its handle is not reused";

    fake::setString("dev4", 5, "READER ONE");
    poll();
    EXPECT_THAT(events.take(), IsEmpty());
    EXPECT_EQ(GVUSB_IsDevicePresent(firstHandle), 1);
    EXPECT_EQ(nextHandle(), firstHandle + 5);
}

TEST_F(HotPlugPollingTest, DisconnectsComeFirstEachInTheOrderOfItsList) {
    scanThree();
    fake::unplug("dev3");
    fake::unplug("dev1");
    fake::plug("dev5", fake::bulkReader("B2"));
    fake::plug("dev4", fake::bulkReader("B1"));
    poll();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000001 id=a1", "disconnect hnd=10000003 id=a3",
                                           "connect hnd=0 id=b2", "connect hnd=0 id=b1"));
    EXPECT_THAT(reportedDisconnects(), ElementsAre(0xA1, 0xA3));
    EXPECT_THAT(reportedConnects(), ElementsAre(0xA2, 0xB2, 0xB1));
}

TEST_F(HotPlugPollingTest, EqualDeviceIdsAreReportedOnce) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::plug("dev2", fake::bulkReader("A1"));
    poll();
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1"));
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    fake::unplug("dev1");
    fake::unplug("dev2");
    poll();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000001 id=a1"));
}

TEST_F(HotPlugPollingTest, HolesInTheScanListAreSkipped) {
    scanThree();
    Devices devices = scanList();
    devices.insert(devices.begin(), nullptr);
    devices.push_back(nullptr);
    setScanList(devices);
    fake::unplug("dev1");
    poll();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000001 id=a1"));
    fake::replug("dev2", "dev4");
    poll();
    EXPECT_EQ(scanList().at(0), nullptr);
    EXPECT_EQ(scanList().at(2)->usbdev, fake::device("dev4"));
    EXPECT_EQ(scanList().size(), 5u);
}

TEST_F(HotPlugPollingTest, ScannedReaderWithDeviceIdZeroIsReportedOnDeparture) {
    fake::plug("dev1", fake::bulkReader("0"));
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    poll();
    EXPECT_THAT(events.take(), IsEmpty());
    fake::unplug("dev1");
    poll();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000001 id=0"));
}

TEST_F(HotPlugPollingTest, ReaderWithDeviceIdZeroIsNeitherReportedOnArrivalNorReplaced) {
    fake::plug("dev1", fake::bulkReader("0"));
    poll();
    EXPECT_THAT(events.take(), IsEmpty());
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr), firstHandle);
    fake::replug("dev1", "dev2");
    poll();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000001 id=0"));
    poll();
    EXPECT_THAT(events.take(), IsEmpty());
    EXPECT_EQ(GVUSB_IsDevicePresent(firstHandle), 0);
    EXPECT_EQ(GVUSB_GetDeviceHnd(0), GVUSB_ERR_NOT_OPENED);

    ASSERT_EQ(GVUSB_CloseDevice(firstHandle), 0);
    const int devHnd = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr);
    EXPECT_EQ(GVUSB_IsDevicePresent(devHnd), 1) << "after closing, scanning and opening it works again";
}

TEST_F(HotPlugPollingTest, ReaderThatChangesItsIdWhileItIsIdentifiedReplacesTheEntryOnly) {
    scanThree();
    ASSERT_EQ(GVUSB_OpenDevice(0xA1), firstHandle);
    fake::replug("dev1", "dev4");
    int reads = 0;
    fake::setHook([&](std::string_view function, std::string_view device) {
        if (function == "libusb_get_string_descriptor_ascii" && device == "dev4" && ++reads == 2) {
            fake::setString("dev4", 1, "C1");
        }
    });
    poll();
    fake::setHook({});
    EXPECT_THAT(deviceIds(scanList()), ElementsAre(0xC1, 0xA2, 0xA3));
    EXPECT_THAT(deviceIds(deviceList()), ElementsAre(0xA1));
    EXPECT_THAT(openHandlesInOrder(), ElementsAre(firstHandle));
    EXPECT_FALSE(deviceList().at(0)->owner);
    expectConsistentLists({"dev1", "dev2", "dev3", "dev4"});
}

TEST_F(HotPlugPollingTest, EmptyDeviceListIsFreedToo) {
    fake::takeCalls();
    poll();
    EXPECT_EQ(fake::takeCallText(), "libusb_get_device_list(default) = 0\n"
                                    "libusb_free_device_list(list, 1)\n");
}
