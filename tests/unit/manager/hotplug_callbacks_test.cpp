#include "list_invariants.h"
#include "manager_test.h"
#include "recorded_events.h"

#include <atomic>
#include <thread>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr auto arrived = LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED;
constexpr auto left = LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT;

class HotPlugCallbacksTest : public ManagerTest {
protected:
    static int connect(const char* name) {
        return GVDrvHnd::ExecDeviceConnectCallbacks(nullptr, fake::device(name), arrived, &g_GvUsbMan);
    }
    static int disconnect(const char* name) {
        return GVDrvHnd::ExecDeviceDisconnectCallbacks(nullptr, fake::device(name), left, &g_GvUsbMan);
    }
    static int dispatch(const char* name, int event) {
        return GVDrvHnd::ExecDeviceCallbacks(nullptr, fake::device(name),
                                             static_cast<libusb_hotplug_event>(event), &g_GvUsbMan);
    }

    void waitForEvents(std::size_t count) {
        while (events.count() < count) {
            std::this_thread::yield();
        }
    }

    RecordedEvents events;
};

} // namespace

TEST_F(HotPlugCallbacksTest, ArrivalIsReportedWithItsDeviceIdEveryTime) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::recordWithoutBookkeeping();
    EXPECT_EQ(connect("dev1"), 0);
    EXPECT_EQ(fake::takeCallText(), "libusb_open(dev1) = 0\n"
                                    "libusb_get_string_descriptor_ascii(hnd1, 1, 256) = 2\n"
                                    "libusb_close(hnd1)\n");
    EXPECT_EQ(connect("dev1"), 0);
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1", "connect hnd=0 id=a1"));
}

TEST_F(HotPlugCallbacksTest, ArrivalWithoutReadableDeviceIdIsIgnored) {
    fake::plug("dev1", fake::bulkReader("A1"));
    LogAt log(2);
    fake::failNext("libusb_open", LIBUSB_ERROR_ACCESS);
    EXPECT_EQ(connect("dev1"), 0);
    for (const fake::FakeString& answer :
         std::initializer_list<fake::FakeString>{LIBUSB_ERROR_IO, "", "none", "0"}) {
        fake::setString("dev1", 1, answer);
        EXPECT_EQ(connect("dev1"), 0);
    }
    EXPECT_THAT(events.take(), IsEmpty());
    EXPECT_THAT(log.takeLines(), IsEmpty());
    EXPECT_EQ(fake::openHandles("dev1"), 0);
}

TEST_F(HotPlugCallbacksTest, DepartureIsReportedWithoutHandleAndId) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    fake::recordWithoutBookkeeping();
    fake::takeCalls();
    EXPECT_EQ(disconnect("dev1"), 0);
    EXPECT_EQ(disconnect("dev1"), 0);
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=0 id=0", "disconnect hnd=0 id=0"));
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_F(HotPlugCallbacksTest, ListsSetsAndLastErrorAreNotTouched) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    fake::plug("dev2", fake::bulkReader("A2"));
    const Devices scanned = scanList();
    const Devices opened = deviceList();
    g_GvUsbMan.SetLastError(-1111);
    connect("dev2");
    disconnect("dev1");
    EXPECT_EQ(scanList(), scanned);
    EXPECT_EQ(deviceList(), opened);
    EXPECT_THAT(reportedConnects(), IsEmpty());
    EXPECT_THAT(reportedDisconnects(), IsEmpty());
    EXPECT_EQ(lastError(), -1111);
}

TEST_F(HotPlugCallbacksTest, ReportsAreLoggedAboveLevelZero) {
    fake::plug("dev1", fake::bulkReader("1A2B"));
    LogAt log(0);
    connect("dev1");
    disconnect("dev1");
    EXPECT_THAT(log.takeLines(), IsEmpty());
    for (const int level : {1, 2}) {
        GVLOG_SetLevel(level);
        connect("dev1");
        EXPECT_THAT(log.takeLines(), ElementsAre("[from libusb] MESSAGE \"connect\": devId=0x1a2b"));
        disconnect("dev1");
        EXPECT_THAT(log.takeLines(),
                    ElementsAre("[from libusb] MESSAGE \"disconnect\": devHnd=0x0 devId=0x0"));
    }
    GVLOG_SetLevel(3);
    connect("dev1");
    EXPECT_THAT(log.takeLines(),
                ElementsAre("[update] read device id", "[from libusb] MESSAGE \"connect\": devId=0x1a2b"));
}

TEST_F(HotPlugCallbacksTest, CombinedCallbackDispatchesByEvent) {
    fake::plug("dev1", fake::bulkReader("A1"));
    EXPECT_EQ(dispatch("dev1", 1), 0);
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1"));
    EXPECT_EQ(dispatch("dev1", 2), 0);
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=0 id=0"));
    fake::takeCalls();
    for (const int event : {0, 3}) {
        EXPECT_EQ(dispatch("dev1", event), 0);
    }
    EXPECT_THAT(events.take(), IsEmpty());
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_F(HotPlugCallbacksTest, LibusbCallsThemForTheVendorsDevicesInModeTwo) {
    restart("gvusb_hotplug=2");
    const RecordedEvents registered;
    fake::FakeReader otherProduct = fake::bulkReader("A9");
    otherProduct.product = 99;
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::plug("dev9", otherProduct);
    fake::plug("lamp", fake::foreignDevice());
    EXPECT_EQ(fake::fireArrived("dev1", fake::Delivery::plain), 1);
    EXPECT_EQ(fake::fireArrived("dev9", fake::Delivery::plain), 1);
    EXPECT_EQ(fake::fireArrived("lamp", fake::Delivery::plain), 0);
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1", "connect hnd=0 id=a9"));
    for (const char* const name : {"dev1", "dev9", "lamp"}) {
        fake::unplug(name);
        fake::fireLeft(name, fake::Delivery::plain);
    }
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=0 id=0", "disconnect hnd=0 id=0"));
    EXPECT_EQ(fake::registeredCallbacks(), 2) << "they stay registered";
}

TEST_F(HotPlugCallbacksTest, EventsDeliveredInsideEventHandlingAreReportedInAnotherThread) {
    restart("gvusb_hotplug=2");
    std::atomic<std::thread::id> reporter;
    std::atomic<int> scanned = 0;
    const RecordedEvents registered([&] {
        reporter = std::this_thread::get_id();
        GVUSB_Scan(GVUSB_SCAN_ALL, nullptr);
        scanned = GVUSB_GetScanListSize();
    });
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::plug("dev2", fake::bulkReader("A2"));
    EXPECT_EQ(fake::fireArrived("dev1"), 1);
    EXPECT_EQ(fake::fireArrived("dev2"), 1);
    waitForEvents(2);
    fake::unplug("dev1");
    EXPECT_EQ(fake::fireLeft("dev1"), 1);
    EXPECT_EQ(fake::fireArrived("dev2"), 1);
    waitForEvents(4);
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1", "connect hnd=0 id=a2",
                                           "disconnect hnd=0 id=0", "connect hnd=0 id=a2"));
    while (scanned != 1) {
        std::this_thread::yield();
    }
    EXPECT_NE(reporter.load(), std::this_thread::get_id());
}

TEST_F(HotPlugCallbacksTest, EventsAreReportedInAnotherThreadWhileTheApplicationHandlesEvents) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::setEventsHandled(true);
    const RecordedEvents registered(
        [caller = std::this_thread::get_id()] { EXPECT_NE(std::this_thread::get_id(), caller); });
    EXPECT_EQ(connect("dev1"), 0);
    EXPECT_EQ(disconnect("dev1"), 0);
    waitForEvents(2);
    fake::setEventsHandled(false);
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1", "disconnect hnd=0 id=0"));
    g_GvUsbMan.m_HotPlugQueue.Stop();
    EXPECT_EQ(fake::references("dev1"), 0);
}

// As in an application that handles events in its own thread.
TEST_F(HotPlugCallbacksTest, BusyArrivalIsReadAgainInAnotherThread) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::setString("dev1", 1, LIBUSB_ERROR_BUSY);
    fake::setHook([caller = std::this_thread::get_id()](std::string_view function, std::string_view) {
        if (function == "libusb_open" && std::this_thread::get_id() != caller) {
            fake::setString("dev1", 1, "A1");
        }
    });
    EXPECT_EQ(connect("dev1"), 0);
    waitForEvents(1);
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1"));
}
