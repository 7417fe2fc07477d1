// What polls lock, what event handlers may do, and that everything is released if a call fails.

#include "allocation_failure.h"
#include "list_invariants.h"
#include "manager_test.h"
#include "recorded_events.h"
#include "worker_sleep.h"

#include <new>
#include <thread>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::vector<std::string> allNames = {"dev1", "dev2", "dev3", "dev4"};

class HotPlugHandlersTest : public ManagerTest {
protected:
    static void poll() { g_GvUsbMan.UpdateDevices(); }

    // Replug dev1 as dev4 while it is open, unplug dev2, and plug in dev3.
    static void comeAndGo() {
        fake::plug("dev1", fake::bulkReader("A1"));
        fake::plug("dev2", fake::bulkReader("A2"));
        ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
        ASSERT_GT(GVUSB_OpenDevice(0xA1), 0);
        fake::plug("dev3", fake::bulkReader("A3"));
        fake::replug("dev1", "dev4");
        fake::unplug("dev2");
    }
};

} // namespace

TEST_F(HotPlugHandlersTest, PollHoldsBothListMutexesDuringItsCalls) {
    comeAndGo();
    std::vector<std::string> unguarded;
    std::size_t calls = 0;
    fake::setHook([&](std::string_view function, std::string_view) {
        ++calls;
        if (!support::isHeld(g_GvUsbMan.m_mtxScanList) || !isGuarded(function)) {
            unguarded.emplace_back(function);
        }
    });
    poll();
    fake::setHook({});
    EXPECT_THAT(unguarded, IsEmpty());
    EXPECT_GT(calls, 15u);
    expectConsistentLists(allNames);
}

TEST_F(HotPlugHandlersTest, PollTakesTheScanListMutexFirst) {
    EXPECT_TRUE(waitsFor(g_GvUsbMan.m_mtxScanList, [] { poll(); }));
    std::future<void> update;
    {
        const MutexLock lock(g_GvUsbMan.m_mtxDevList);
        update = std::async(std::launch::async, [] { poll(); });
        while (!support::isHeld(g_GvUsbMan.m_mtxScanList)) {
            std::this_thread::yield();
        }
        EXPECT_EQ(update.wait_for(std::chrono::milliseconds(5)), std::future_status::timeout);
    }
    update.get();
}

TEST_F(HotPlugHandlersTest, HandlersRunWithoutTheListMutexes) {
    comeAndGo();
    RecordedEvents events([] {
        EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxScanList));
        EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxDevList));
        EXPECT_TRUE(support::isHeld(g_MtxEvtInitAry));
    });
    poll();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000001 id=a1", "disconnect hnd=10000002 id=a2",
                                           "connect hnd=0 id=a3"));
    EXPECT_FALSE(support::isHeld(g_MtxEvtInitAry));
}

TEST_F(HotPlugHandlersTest, HandlersMayUseTheLibrary) {
    comeAndGo();
    int rounds = 0;
    RecordedEvents events([&] {
        ++rounds;
        EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
        EXPECT_EQ(GVUSB_GetScanListSize(), 2);
        const int devHnd = GVUSB_OpenDevice(0xA3);
        EXPECT_GT(devHnd, 0);
        const unsigned char frame[] = {1, 2, 3};
        unsigned char answer[8] = {};
        EXPECT_EQ(GVUSB_Transceive(devHnd, "TESK-RCI2", 0, frame, 3, answer, sizeof answer), 3);
        char value[GVUSB_PARAMETER_SIZE] = {};
        EXPECT_EQ(GVUSB_SetDevicePara(devHnd, "TIMEOUT", "500"), 0);
        EXPECT_EQ(GVUSB_GetDevicePara(devHnd, "TIMEOUT", value), 0);
        EXPECT_STREQ(value, "500");
        EXPECT_EQ(GVUSB_SetDevicePara(-1, "HOTPLUG-SUSPEND", "1"), 0);
        EXPECT_EQ(GVUSB_GetScanListPara(0, "DEVICE-ID", value), 0);
        EXPECT_EQ(GVUSB_CloseDevice(devHnd), 0);
        EXPECT_EQ(GVUSB_ClearScanList(), 0);
    });
    poll();
    EXPECT_EQ(rounds, 3);
    expectConsistentLists(allNames);
}

TEST_F(HotPlugHandlersTest, ExceptionFromAHandlerLeavesNothingLocked) {
    fake::plug("dev1", fake::bulkReader("A1"));
    RecordedEvents events([] { throw std::bad_alloc(); });
    EXPECT_THROW(poll(), std::bad_alloc);
    EXPECT_FALSE(support::isHeld(g_MtxEvtInitAry));
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1"));
    expectConsistentLists({"dev1"});
    poll();
    EXPECT_THAT(events.take(), IsEmpty()) << "the report has begun, so it counts";
}

TEST_F(HotPlugHandlersTest, EveryAllocationOfAPollMayFail) {
    if (!support::allocationsAreWatched) {
        GTEST_SKIP() << "the sanitizer replaces operator new";
    }
    for (const int level : {0, 3}) {
        bool failed = true;
        std::size_t n = 1;
        for (; failed; ++n) {
            SCOPED_TRACE(testing::Message() << "level " << level << ", " << n);
            reload();
            comeAndGo();
            LogAt log(level);
            {
                const auto failure = support::failAllocation(n);
                try {
                    poll();
                } catch (const std::bad_alloc&) {
                }
                failed = failure.happened();
            }
            EXPECT_EQ(fake::leftovers().find("list"), std::string::npos);
            expectConsistentLists(allNames);
            poll();
            expectConsistentLists(allNames);
        }
        EXPECT_GT(n, level == 0 ? 5u : 20u);
    }
}

TEST_F(HotPlugHandlersTest, EveryLibusbCallOfAPollMayFail) {
    bool failed = true;
    std::size_t n = 1;
    for (; failed; ++n) {
        SCOPED_TRACE(n);
        reload();
        comeAndGo();
        fake::failCall(n, LIBUSB_ERROR_IO);
        poll();
        failed = fake::failurePlayed();
        expectConsistentLists(allNames);
        fake::stopFailing();
        poll();
        expectConsistentLists(allNames);
        EXPECT_EQ(scanList().at(0)->usbdev, fake::device("dev4"));
    }
    EXPECT_GT(n, 10u);
}

TEST_F(HotPlugHandlersTest, NothingIsPolledWhileSuspended) {
    support::SteeredSleep sleep;
    restart("");
    const auto polls = [] { return fake::timesCalled("libusb_get_device_list"); };
    sleep.turn();
    EXPECT_EQ(polls(), 1u);
    ASSERT_EQ(GVUSB_SetDevicePara(-1, "HOTPLUG-SUSPEND", "1"), 0);
    sleep.turn();
    sleep.turn();
    EXPECT_EQ(polls(), 1u);
    ASSERT_EQ(GVUSB_SetDevicePara(-1, "HOTPLUG-SUSPEND", "0"), 0);
    sleep.turn();
    EXPECT_EQ(polls(), 2u);
}

TEST_F(HotPlugHandlersTest, WorkerReportsToHandlersThatOpen) {
    support::SteeredSleep sleep;
    restart("");
    RecordedEvents events([] { EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0); });
    fake::plug("dev1", fake::bulkReader("A1"));
    sleep.turn();
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1"));
    EXPECT_EQ(GVUSB_IsDevicePresent(GVUSB_GetDeviceHnd(0xA1)), 1);
    sleep.turn();
    EXPECT_THAT(events.take(), IsEmpty());
}
