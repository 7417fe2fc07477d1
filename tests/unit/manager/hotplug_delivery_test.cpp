// Hot-plug callbacks inside and outside libusb's event handling: what they do there, and which thread
// reports.
#include "captured_stdout.h"
#include "hotplug_queue_probe.h"
#include "manager_lists.h"
#include "manager_test.h"
#include "mutex_probe.h"
#include "recorded_events.h"
#include "waiting.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <pthread.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;
using waiting::eventually;

namespace {

class HotPlugDeliveryTest : public ManagerTest {
protected:
    HotPlugDeliveryTest() {
        restart("gvusb_hotplug=2");
        fake::plug("dev1", fake::bulkReader("A1"));
        fake::plug("dev2", fake::bulkReader("A2"));
        fake::takeCalls();
    }

    // The libusb calls of this thread during the callback.
    static std::string callsOf(int (*fire)(std::string_view, fake::Delivery), fake::Delivery delivery) {
        fake::watchOnlyThisThread();
        fake::takeCalls();
        EXPECT_EQ(fire("dev1", delivery), 1);
        return fake::takeCallText();
    }

    // Wait until everything delivered so far has been reported.
    static void finishReports() { g_GvUsbMan.m_HotPlugQueue.Stop(); }

    static std::size_t posts() { return fake::timesCalled("libusb_ref_device"); }
};

constexpr auto inside = fake::Delivery::insideEventHandling;
constexpr auto outside = fake::Delivery::plain;

bool come(RecordedEvents& events, std::size_t count) {
    return eventually([&] { return events.count() >= count; });
}

} // namespace

TEST_F(HotPlugDeliveryTest, InsideEventHandlingTheCallbackOnlyReferencesTheDevice) {
    RecordedEvents events;
    for (const auto fire : {&fake::fireArrived, &fake::fireLeft}) {
        EXPECT_EQ(callsOf(fire, inside), "libusb_try_lock_events(default) = 1\n"
                                         "libusb_ref_device(dev1)\n");
    }
    EXPECT_TRUE(come(events, 2));
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1", "disconnect hnd=0 id=0"));
}

TEST_F(HotPlugDeliveryTest, OutsideEventHandlingTheEventLockIsReleasedAtOnce) {
    const RecordedEvents events;
    EXPECT_EQ(callsOf(&fake::fireArrived, outside), "libusb_try_lock_events(default) = 0\n"
                                                    "libusb_unlock_events(default)\n"
                                                    "libusb_open(dev1) = 0\n"
                                                    "libusb_get_string_descriptor_ascii(hnd1, 1, 256) = 2\n"
                                                    "libusb_close(hnd1)\n");
    EXPECT_EQ(callsOf(&fake::fireLeft, outside), "libusb_try_lock_events(default) = 0\n"
                                                 "libusb_unlock_events(default)\n");
}

TEST_F(HotPlugDeliveryTest, OutsideEventHandlingTheCallerReportsBeforeItReturns) {
    std::vector<std::thread::id> reporters;
    RecordedEvents events([&] { reporters.push_back(std::this_thread::get_id()); });
    fake::fireArrived("dev1", outside);
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1"));
    fake::fireLeft("dev1", outside);
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=0 id=0"));
    EXPECT_THAT(reporters, ElementsAre(std::this_thread::get_id(), std::this_thread::get_id()));
}

TEST_F(HotPlugDeliveryTest, NeitherCallbackNorReportWaitsForTheLists) {
    RecordedEvents events;
    std::future<void> delivery;
    {
        const MutexLock scanning(g_GvUsbMan.m_mtxScanList);
        const MutexLock working(g_GvUsbMan.m_mtxDevList);
        delivery = std::async(std::launch::async, [] {
            fake::fireArrived("dev1", inside);
            fake::fireLeft("dev1", inside);
        });
        EXPECT_EQ(delivery.wait_for(std::chrono::seconds(60)), std::future_status::ready);
        EXPECT_TRUE(come(events, 2));
    }
}

TEST_F(HotPlugDeliveryTest, CallbackDoesNotWaitForAHandler) {
    RecordedEvents events;
    std::future<void> delivery;
    {
        const MutexLock handling(g_MtxEvtInitAry);
        delivery = std::async(std::launch::async, [] {
            fake::fireArrived("dev1", inside);
            fake::fireLeft("dev1", inside);
        });
        EXPECT_EQ(delivery.wait_for(std::chrono::seconds(60)), std::future_status::ready);
        EXPECT_EQ(events.count(), 0u);
    }
    EXPECT_TRUE(come(events, 2));
}

TEST_F(HotPlugDeliveryTest, HandlersRunInAThreadWithoutSignalsAndWithTheListsUnlocked) {
    std::atomic<int> wrong = 0;
    std::atomic<int> seen = 0;
    RecordedEvents events([&, caller = std::this_thread::get_id()] {
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        for (const int signal : {SIGINT, SIGTERM, SIGALRM, SIGCHLD, SIGUSR1, SIGPIPE}) {
            wrong += sigismember(&blocked, signal) == 1 ? 0 : 1;
        }
        wrong += std::this_thread::get_id() == caller;
        wrong += support::isHeld(g_GvUsbMan.m_mtxScanList);
        wrong += support::isHeld(g_GvUsbMan.m_mtxDevList);
        wrong += !support::isHeld(g_MtxEvtInitAry);
        ++seen;
    });
    fake::fireArrived("dev1", inside);
    fake::fireLeft("dev1", inside);
    EXPECT_TRUE(eventually([&] { return seen == 2; }));
    EXPECT_EQ(wrong, 0);
}

TEST_F(HotPlugDeliveryTest, HandlersInTheThreadMayScanOpenAndExchange) {
    std::atomic<int> received = 0;
    RecordedEvents events([&] {
        GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr);
        const unsigned char frame[] = {1, 2, 3};
        unsigned char answer[8];
        received = GVUSB_Transceive(GVUSB_GetDeviceList(0), "TESK-RCI2", 0, frame, sizeof frame, answer,
                                    sizeof answer);
        GVUSB_CloseDevice(GVUSB_GetDeviceList(0));
    });
    fake::fireArrived("dev1", inside);
    EXPECT_TRUE(eventually([&] { return received != 0; })) << received;
    EXPECT_GT(received, 0);
}

TEST_F(HotPlugDeliveryTest, ReportsOfTheThreadAreLoggedToo) {
    for (const int level : {0, 1, 2, 3}) {
        SCOPED_TRACE(level);
        std::vector<Lines> lines;
        for (const fake::Delivery delivery : {outside, inside}) {
            restart("gvusb_hotplug=2");
            fake::plug("dev1", fake::bulkReader("1A2B"));
            RecordedEvents events;
            LogAt log(level);
            fake::fireArrived("dev1", delivery);
            fake::fireLeft("dev1", delivery);
            EXPECT_TRUE(come(events, 2));
            lines.push_back(log.takeLines());
        }
        EXPECT_EQ(lines[0], lines[1]);
        EXPECT_EQ(lines[1].size(), level == 0 ? 0u : level < 3 ? 2u : 3u);
    }
}

TEST_F(HotPlugDeliveryTest, ManyArrivalsAndDeparturesAreReportedInOrder) {
    RecordedEvents events;
    std::vector<std::string> wanted;
    for (int i = 0; i < 200; ++i) {
        const bool first = i % 3 == 0;
        if (i % 5 < 3) {
            fake::fireArrived(first ? "dev1" : "dev2", inside);
            wanted.emplace_back(first ? "connect hnd=0 id=a1" : "connect hnd=0 id=a2");
        } else {
            fake::fireLeft(first ? "dev1" : "dev2", inside);
            wanted.emplace_back("disconnect hnd=0 id=0");
        }
    }
    EXPECT_TRUE(come(events, wanted.size()));
    finishReports();
    EXPECT_EQ(events.take(), wanted);
    EXPECT_EQ(fake::references("dev1"), 0);
    EXPECT_EQ(fake::references("dev2"), 0);
}

TEST_F(HotPlugDeliveryTest, ReaderGoneBeforeItsReportIsKeptAndNotReported) {
    waiting::Turnstile turnstile;
    RecordedEvents events([&] { turnstile.pass(); });
    fake::fireArrived("dev1", inside);
    ASSERT_TRUE(turnstile.isReached());
    fake::fireArrived("dev2", inside);
    fake::unplug("dev2");
    fake::fireLeft("dev2", inside);
    EXPECT_EQ(fake::references("dev2"), 2);
    turnstile.letOneThrough();
    ASSERT_TRUE(turnstile.isReached());
    turnstile.letOneThrough();
    finishReports();
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1", "disconnect hnd=0 id=0"));
    EXPECT_EQ(fake::references("dev2"), 0);
    EXPECT_THAT(fake::misuses(), IsEmpty());
}

TEST_F(HotPlugDeliveryTest, UnreadableReaderIsSkipped) {
    RecordedEvents events;
    for (const fake::FakeString& answer : {fake::FakeString{LIBUSB_ERROR_IO}, fake::FakeString{"none"}}) {
        fake::setString("dev1", 1, answer);
        fake::fireArrived("dev1", inside);
        fake::fireArrived("dev2", inside);
        EXPECT_TRUE(come(events, 1));
        EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a2"));
    }
    EXPECT_EQ(fake::openHandles("dev1"), 0);
}

TEST_F(HotPlugDeliveryTest, FailedReadIsRepeatedInTheThreadOnlyIfBusy) {
    const RecordedEvents events;
    for (const int code :
         {LIBUSB_ERROR_IO, LIBUSB_ERROR_INVALID_PARAM, LIBUSB_ERROR_ACCESS, LIBUSB_ERROR_NO_DEVICE,
          LIBUSB_ERROR_NOT_FOUND, LIBUSB_ERROR_TIMEOUT, LIBUSB_ERROR_OVERFLOW, LIBUSB_ERROR_PIPE,
          LIBUSB_ERROR_INTERRUPTED, LIBUSB_ERROR_NO_MEM, LIBUSB_ERROR_NOT_SUPPORTED, LIBUSB_ERROR_OTHER}) {
        for (const char* const call : {"libusb_open", "libusb_get_string_descriptor_ascii"}) {
            fake::failNext(call, code);
            fake::fireArrived("dev1", outside);
        }
    }
    for (const char* const text : {"", "none", "0"}) {
        fake::setString("dev1", 1, text);
        fake::fireArrived("dev1", outside);
    }
    EXPECT_EQ(posts(), 0u);
    fake::setString("dev1", 1, LIBUSB_ERROR_BUSY);
    fake::fireArrived("dev1", outside);
    EXPECT_EQ(posts(), 1u);
}

TEST_F(HotPlugDeliveryTest, ReaderThatIsBusyInTheThreadTooIsDropped) {
    RecordedEvents events;
    fake::setString("dev1", 1, LIBUSB_ERROR_BUSY);
    fake::fireArrived("dev1", outside);
    fake::fireLeft("dev2", inside);
    EXPECT_TRUE(come(events, 1));
    finishReports();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=0 id=0"));
    EXPECT_EQ(fake::timesCalled("libusb_get_string_descriptor_ascii"), 2u);
    EXPECT_EQ(posts(), 2u);
    EXPECT_EQ(fake::references("dev1"), 0);
}

TEST_F(HotPlugDeliveryTest, UnloadingWaitsForTheReportInProgressAndDropsTheRest) {
    waiting::Turnstile turnstile;
    RecordedEvents events([&] { turnstile.pass(); });
    fake::fireArrived("dev1", inside);
    ASSERT_TRUE(turnstile.isReached());
    fake::fireArrived("dev2", inside);
    fake::fireLeft("dev1", inside);
    std::atomic<bool> deregistered = false;
    fake::setHook([&](std::string_view function, std::string_view) {
        deregistered = deregistered || function == "libusb_hotplug_deregister_callback";
    });
    auto unloading = std::async(std::launch::async, [] { g_GvUsbMan.~GVDrvHnd(); });
    ASSERT_TRUE(isBeingStopped(g_GvUsbMan.m_HotPlugQueue, "dev2"));
    EXPECT_EQ(unloading.wait_for(std::chrono::milliseconds(10)), std::future_status::timeout);
    EXPECT_FALSE(deregistered);
    turnstile.letOneThrough();
    EXPECT_EQ(unloading.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    fake::setHook(nullptr);
    EXPECT_TRUE(deregistered);
    EXPECT_EQ(fake::leftovers(), "");
    new (&g_GvUsbMan) GVDrvHnd;
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1"));
}

// The callbacks are deregistered after the thread has ended.
TEST_F(HotPlugDeliveryTest, EventsDeliveredDuringUnloadingAreDropped) {
    RecordedEvents events;
    int delivered = 0;
    fake::setHook([&](std::string_view function, std::string_view) {
        if (function == "libusb_hotplug_deregister_callback") {
            delivered += fake::fireArrived("dev1", inside) + fake::fireLeft("dev1", inside);
        }
    });
    g_GvUsbMan.~GVDrvHnd();
    fake::setHook(nullptr);
    EXPECT_EQ(delivered, 3) << "one of the two is gone the second time";
    EXPECT_EQ(posts(), 3u);
    EXPECT_EQ(fake::leftovers(), "");
    new (&g_GvUsbMan) GVDrvHnd;
    EXPECT_THAT(events.take(), IsEmpty());
}
