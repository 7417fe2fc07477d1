// Event handlers that end the process: exit() unloads the library inside the handler, in any thread, while
// other threads wait for the registrations that the handler's thread has locked.
#include "manager_test.h"

#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>
#include <unistd.h>

namespace fake = fake_libusb;

namespace {

// A process that takes longer than ten seconds to end is killed. Registered before the library's static
// objects are constructed, so that the timer is stopped after their destruction, and a sanitizer's work at
// exit does not count.
void endInTime() {
    alarm(0);
}
[[gnu::constructor(101)]] void registerEndInTime() {
    std::atexit(&endInTime);
}

std::function<void()> beforeExit;

void exitingHandler(int, unsigned int, const char*) {
    if (beforeExit) {
        beforeExit();
        // Give the threads that wait for this handler time to do so.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    alarm(10);
    std::exit(7);
}

void arriveWhileEventsAreHandled() {
    fake::setEventsHandled(true);
    GVDrvHnd::ExecDeviceConnectCallbacks(nullptr, fake::device("dev1"), LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED,
                                         &g_GvUsbMan);
}

void leaveWhileEventsAreHandled() {
    fake::setEventsHandled(true);
    GVDrvHnd::ExecDeviceDisconnectCallbacks(nullptr, fake::device("dev1"), LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT,
                                            &g_GvUsbMan);
}

class HandlerExitDeathTest : public ManagerTest {
protected:
    HandlerExitDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    static void start(const char* configuration, unsigned event, std::function<void()> inHandler = {}) {
        alarm(20); // in case the handler never runs
        restart(configuration);
        beforeExit = std::move(inHandler);
        GVUSB_EVENT_INIT record = {event, 0, GVUSB_CALLBACK_FUNCTION, 0, &exitingHandler};
        GVUSB_AddEventHandler(0, &record);
        // A thread of the application may still use libusb's context.
        fake::setHook([](std::string_view function, std::string_view) {
            if (function == "libusb_exit") {
                _exit(8);
            }
        });
    }

    static void waitForTheEnd() { std::this_thread::sleep_for(std::chrono::seconds(30)); }
};

} // namespace

TEST_F(HandlerExitDeathTest, InTheCallersThread) {
    EXPECT_EXIT(
        {
            start("nopnp", 1);
            GVDrvHnd::ExecEventInitListCallbacks(1, 0, 0);
        },
        testing::ExitedWithCode(7), "");
}

TEST_F(HandlerExitDeathTest, InTheCallersThreadWhileWorkerAndQueueWait) {
    EXPECT_EXIT(
        {
            start("gvusb_updaterate=10", 2, [] {
                fake::plug("dev1", fake::bulkReader("A1")); // the worker finds it
                arriveWhileEventsAreHandled();
            });
            GVDrvHnd::ExecEventInitListCallbacks(2, 0, 0);
        },
        testing::ExitedWithCode(7), "");
}

TEST_F(HandlerExitDeathTest, InTheWorker) {
    EXPECT_EXIT(
        {
            start("gvusb_updaterate=10", 1);
            fake::plug("dev1", fake::bulkReader("A1"));
            waitForTheEnd();
        },
        testing::ExitedWithCode(7), "");
}

TEST_F(HandlerExitDeathTest, InTheWorkerWhileTheQueueWaits) {
    EXPECT_EXIT(
        {
            start("gvusb_updaterate=10", 1, [] {
                leaveWhileEventsAreHandled();
                arriveWhileEventsAreHandled();
            });
            fake::plug("dev1", fake::bulkReader("A1"));
            waitForTheEnd();
        },
        testing::ExitedWithCode(7), "");
}

TEST_F(HandlerExitDeathTest, InTheQueuesThreadWhileTheWorkerSleepsForHours) {
    EXPECT_EXIT(
        {
            start("gvusb_hotplug=2 gvusb_updaterate=3600000000", 1);
            fake::plug("dev1", fake::bulkReader("A1"));
            fake::fireArrived("dev1");
            waitForTheEnd();
        },
        testing::ExitedWithCode(7), "");
}

TEST_F(HandlerExitDeathTest, InTheQueuesThreadWhileTheWorkerWaitsAndEventsAreQueued) {
    EXPECT_EXIT(
        {
            start("gvusb_updaterate=10", 2, [] {
                fake::plug("dev2", fake::bulkReader("A2")); // the worker finds it
                arriveWhileEventsAreHandled();
                leaveWhileEventsAreHandled();
            });
            fake::plug("dev1", fake::bulkReader("A1"));
            leaveWhileEventsAreHandled();
            waitForTheEnd();
        },
        testing::ExitedWithCode(7), "");
}
