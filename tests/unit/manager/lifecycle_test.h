// The fixture for the manager's construction and destruction, in a state that the test prepares.
#pragma once

#include "manager_test.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

class LifecycleTest : public ManagerTest {
protected:
    // Simulate unloading and loading with this configuration file (nullopt: none) and after `prepare`.
    // Records only this thread's calls, and so none of a polling worker.
    static void load(
        const std::optional<std::string>& configuration, const std::function<void()>& prepare = [] {}) {
        g_GvUsbMan.~GVDrvHnd();
        fake_libusb::reset();
        fake_libusb::watchOnlyThisThread();
        support::setConfigurationText(configuration);
        prepare();
        new (&g_GvUsbMan) GVDrvHnd;
    }

    // The libusb calls of unloading. Afterwards loads again, without polling.
    static std::vector<std::string> unload() {
        // Leave out the calls that check whether another thread handles libusb's events.
        fake_libusb::recordAllBut({"libusb_try_lock_events", "libusb_unlock_events",
                                   "libusb_event_handler_active", "libusb_get_pollfds",
                                   "libusb_free_pollfds"});
        fake_libusb::takeCalls();
        g_GvUsbMan.~GVDrvHnd();
        std::vector<std::string> calls = fake_libusb::takeCalls();
        EXPECT_EQ(fake_libusb::leftovers(), "");
        EXPECT_EQ(fake_libusb::misuses(), std::vector<std::string>());
        fake_libusb::reset();
        support::setConfigurationText(quiet);
        new (&g_GvUsbMan) GVDrvHnd;
        return calls;
    }
};
