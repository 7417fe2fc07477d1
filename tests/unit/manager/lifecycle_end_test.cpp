// Destruction of the manager.
#include "lifecycle_test.h"

#include "manager_lists.h"
#include "mutex_probe.h"
#include "worker_sleep.h"

#include "base/log.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

void ignoreEvent(int, unsigned int, const char*) {
}

class EndTest : public LifecycleTest {
protected:
    static void addHandler() {
        GVUSB_EVENT_INIT registration = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, ignoreEvent};
        EXPECT_EQ(GVUSB_AddEventHandler(0, &registration), 0);
    }

    static std::size_t handlers() {
        const MutexLock lock(g_MtxEvtInitAry);
        return g_EvtInitAry.size();
    }

    // Calls by which unloading checks whether another thread handles libusb's events.
    static bool isAboutEventHandling(std::string_view function) {
        return function.find("event") != std::string_view::npos ||
               function.find("pollfds") != std::string_view::npos;
    }

    static std::chrono::steady_clock::duration timeToUnload() {
        const auto begin = std::chrono::steady_clock::now();
        unload();
        return std::chrono::steady_clock::now() - begin;
    }

    // Wait until the worker is in a sleep that began after `sleepsBefore`.
    static void waitForSleep(int sleepsBefore) {
        while (support::sleepsBegun() == sleepsBefore) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }
};

} // namespace

TEST_F(EndTest, ExitsLibusbInModesZeroAndOne) {
    for (const char* configuration : {"nopnp", "gvusb_hotplug=1", "gvusb_hotplug=7"}) {
        load(configuration);
        EXPECT_THAT(unload(), ElementsAre("libusb_exit(default)")) << configuration;
    }
}

TEST_F(EndTest, DeregistersTheCallbacksInModeTwo) {
    load("gvusb_hotplug=2");
    EXPECT_THAT(unload(),
                ElementsAre("libusb_hotplug_deregister_callback(default, 1)",
                            "libusb_hotplug_deregister_callback(default, 2)", "libusb_exit(default)"));
}

TEST_F(EndTest, FailedRegistrationsAreNotDeregistered) {
    load("gvusb_hotplug=2", [] { fake::failNext("libusb_hotplug_register_callback", LIBUSB_ERROR_NO_MEM); });
    unload();
    load("gvusb_hotplug=2",
         [] { fake::failAlways("libusb_hotplug_register_callback", LIBUSB_ERROR_NO_MEM); });
    unload();
}

// dev1 is only scanned, dev2 open and scanned, dev3 only open.
TEST_F(EndTest, DestroysScannedThenOpenReadersBeforeItExitsLibusb) {
    load("gvusb_hotplug=2");
    fake::plug("dev3", fake::bulkReader("3"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    fake::unplug("dev3");
    fake::plug("dev1", fake::bulkReader("1"));
    fake::plug("dev2", fake::bulkReader("2"));
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    ASSERT_GT(GVUSB_OpenDevice(2), 0);
    EXPECT_THAT(unload(),
                ElementsAre("libusb_hotplug_deregister_callback(default, 1)",
                            "libusb_hotplug_deregister_callback(default, 2)", "libusb_unref_device(dev1)",
                            "libusb_release_interface(hnd3, 0) = -5", "libusb_close(hnd3)",
                            "libusb_unref_device(dev3)", "libusb_release_interface(hnd2, 0) = -5",
                            "libusb_close(hnd2)", "libusb_unref_device(dev2)", "libusb_exit(default)"));
}

TEST_F(EndTest, FreesTheRegistrations) {
    load("nopnp");
    addHandler();
    ASSERT_EQ(handlers(), 1u);
    unload();
    EXPECT_EQ(handlers(), 0u);
}

TEST_F(EndTest, StopsTheWorkerThenBlocksScansThenClears) {
    load("gvusb_hotplug=2");
    fake::plug("dev1", fake::bulkReader("1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    addHandler();
    std::vector<std::string> seen;
    fake::setHook([&](std::string_view function, std::string_view) {
        EXPECT_TRUE(relaxed::load(g_GvUsbMan.m_bStopThread)) << function;
        EXPECT_TRUE(support::isHeld(g_GvUsbMan.m_mtxScanList)) << function;
        if (function == "libusb_hotplug_deregister_callback") {
            EXPECT_EQ(handlers(), 1u);
            EXPECT_EQ(manager_lists::scanList().size(), 1u);
            EXPECT_EQ(manager_lists::deviceList().size(), 1u);
        } else if (function == "libusb_close") {
            EXPECT_EQ(handlers(), 0u);
        } else if (function == "libusb_exit") {
            EXPECT_THAT(manager_lists::scanList(), IsEmpty());
            EXPECT_THAT(manager_lists::deviceList(), IsEmpty());
        }
        if (!isAboutEventHandling(function)) {
            seen.emplace_back(function);
        }
    });
    g_GvUsbMan.~GVDrvHnd();
    fake::setHook(nullptr);
    new (&g_GvUsbMan) GVDrvHnd;
    EXPECT_THAT(seen, ElementsAre("libusb_hotplug_deregister_callback", "libusb_hotplug_deregister_callback",
                                  "libusb_release_interface", "libusb_close", "libusb_unref_device",
                                  "libusb_exit"));
}

TEST_F(EndTest, DoesNotWaitForALongSleep) {
    for (const char* configuration : {"gvusb_updaterate=4000000", "nopnp gvusb_updaterate=4000000"}) {
        const int before = support::sleepsBegun();
        load(configuration);
        waitForSleep(before);
        EXPECT_LT(timeToUnload(), std::chrono::seconds(60)) << configuration;
    }
}

// The worker may not have begun its first sleep yet.
TEST_F(EndTest, MayFollowTheStartImmediately) {
    for (int i = 0; i < 20; ++i) {
        load("gvusb_updaterate=4000000");
        EXPECT_LT(timeToUnload(), std::chrono::seconds(60));
    }
}

TEST_F(EndTest, DoesNotWaitForALongSleepSetAtRunTime) {
    load("gvusb_updaterate=10");
    ASSERT_EQ(GVUSB_SetDevicePara(-1, "HOTPLUG-UPDATERATE", "3600000000"), 0);
    waitForSleep(support::sleepsBegun());
    EXPECT_LT(timeToUnload(), std::chrono::seconds(60));
}

TEST_F(EndTest, WaitsForAPollInProgress) {
    support::SteeredSleep sleep;
    load("gvusb_hotplug=1", [] { fake::recordAll(); });
    sleep.waitUntilAsleep();
    std::atomic<bool> polling = false;
    std::atomic<bool> mayGoOn = false;
    const auto doze = [] { std::this_thread::sleep_for(std::chrono::microseconds(200)); };
    fake::setHook([&](std::string_view function, std::string_view) {
        if (function == "libusb_get_device_list") {
            polling = true;
            while (!mayGoOn) {
                doze();
            }
        }
    });
    sleep.wake();
    while (!polling) {
        doze();
    }
    std::atomic<bool> ended = false;
    std::thread end([&] {
        g_GvUsbMan.~GVDrvHnd();
        ended = true;
    });
    while (!relaxed::load(g_GvUsbMan.m_bStopThread)) {
        doze();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(ended);
    mayGoOn = true;
    end.join();
    fake::setHook(nullptr);
    EXPECT_EQ(fake::timesCalled("libusb_get_device_list"), 1u);
    EXPECT_EQ(fake::timesCalled("libusb_free_device_list"), 1u);
    EXPECT_EQ(fake::leftovers(), "");
    new (&g_GvUsbMan) GVDrvHnd;
}

// Freeing the context would crash the thread that handles its events.
TEST_F(EndTest, LeavesTheContextToAThreadThatHandlesEvents) {
    for (const char* configuration : {"nopnp", "gvusb_hotplug=1", "gvusb_hotplug=2"}) {
        load(configuration);
        fake::plug("dev1", fake::bulkReader("1"));
        ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
        addHandler();
        fake::setEventsHandled(true);
        g_GvUsbMan.~GVDrvHnd();
        EXPECT_EQ(fake::timesCalled("libusb_exit"), 0u) << configuration;
        EXPECT_EQ(fake::leftovers(), "libusb_init: 1 without libusb_exit\n") << configuration;
        EXPECT_THAT(fake::misuses(), IsEmpty()) << configuration;
        fake::setEventsHandled(false);
        libusb_exit(nullptr);
        new (&g_GvUsbMan) GVDrvHnd;
    }
}

TEST_F(EndTest, LeavesTheContextToAThreadThatIsBetweenTwoIterations) {
    load("nopnp");
    fake::setHook([&](std::string_view function, std::string_view) {
        if (function == "libusb_event_handler_active" && fake::timesCalled(function) == 3) {
            fake::setEventsHandled(true);
        }
    });
    g_GvUsbMan.~GVDrvHnd();
    fake::setHook(nullptr);
    EXPECT_EQ(fake::timesCalled("libusb_exit"), 0u);
    fake::setEventsHandled(false);
    libusb_exit(nullptr);
    new (&g_GvUsbMan) GVDrvHnd;
}

// libusb_exit() would wait for a thread that it can no longer wake up.
TEST_F(EndTest, LeavesTheContextIfItsDescriptorsAreClosed) {
    load("nopnp");
    const int closed = dup(STDOUT_FILENO);
    close(closed);
    fake::setPollDescriptors({STDOUT_FILENO, closed});
    g_GvUsbMan.~GVDrvHnd();
    EXPECT_EQ(fake::timesCalled("libusb_exit"), 0u);
    libusb_exit(nullptr);
    new (&g_GvUsbMan) GVDrvHnd;
    fake::setPollDescriptors({STDOUT_FILENO});
    EXPECT_THAT(unload(), ElementsAre("libusb_exit(default)"));
}

TEST_F(EndTest, InterruptsTheEventHandlerAndWaitsForItInModeTwo) {
    load("gvusb_hotplug=2");
    fake::setEventsHandled(true);
    fake::takeCalls();
    g_GvUsbMan.~GVDrvHnd();
    EXPECT_THAT(fake::takeCalls(),
                ElementsAre("libusb_try_lock_events(default) = 1",
                            "libusb_hotplug_deregister_callback(default, 1)",
                            "libusb_hotplug_deregister_callback(default, 2)",
                            "libusb_try_lock_events(default) = 1", "libusb_lock_event_waiters(default)",
                            "libusb_interrupt_event_handler(default)", "libusb_try_lock_events(default) = 0",
                            "libusb_unlock_event_waiters(default)", "libusb_unlock_events(default)"));
    fake::setEventsHandled(false);
    libusb_exit(nullptr);
    new (&g_GvUsbMan) GVDrvHnd;
}

// For example, a thread that handles events and ends the process in its own callback.
TEST_F(EndTest, WaitsOnlyOneSecondForAStuckEventHandler) {
    load("gvusb_hotplug=2");
    fake::setEventHandlerStuck();
    const auto begin = std::chrono::steady_clock::now();
    g_GvUsbMan.~GVDrvHnd();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_EQ(fake::timesCalled("libusb_exit"), 0u);
    fake::setEventsHandled(false);
    libusb_exit(nullptr);
    new (&g_GvUsbMan) GVDrvHnd;
}

TEST_F(EndTest, ManagerCanBeReloadedAnyNumberOfTimes) {
    for (int i = 0; i < 10; ++i) {
        load("gvusb_hotplug=2");
        fake::plug("dev1", fake::bulkReader("1A2B3C"));
        EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
        EXPECT_EQ(GVUSB_GetDeviceList(0), 0x10000001);
    }
}

using EndDeathTest = EndTest;

// In a real process, the manager clears the registrations and readers that the application left behind.
TEST_F(EndDeathTest, ProcessEndsCleanlyWithEverythingLeftOpen) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            fake::plug("dev1", fake::bulkReader("1A2B3C"));
            GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr);
            addHandler();
            GVLOG_SetLevel(1);
            std::exit(fake::misuses().empty() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "\\[exit\\] cleaning up \\.\\.\\.\n.*\\[exit\\] \\.\\.\\. done\n");
}
