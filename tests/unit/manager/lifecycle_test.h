// A test of the manager's beginning and end: it is built and destroyed under the circumstances that the test
// prepares.
#pragma once

#include "manager_test.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

class LifecycleTest : public ManagerTest {
protected:
    // Unloads and loads with this configuration file, none for nullopt. libusb is as `prepare` leaves it;
    // only this thread's calls are recorded, and none made by a worker that polls.
    static void load(
        const std::optional<std::string>& configuration, const std::function<void()>& prepare = [] {}) {
        g_GvUsbMan.~GVDrvHnd();
        fake_libusb::reset();
        fake_libusb::watchOnlyThisThread();
        support::setConfigurationText(configuration);
        prepare();
        new (&g_GvUsbMan) GVDrvHnd;
    }

    // What libusb is called when the manager goes. Another one, that does not poll, takes its place.
    static std::vector<std::string> unload() {
        // How it finds out whether another thread handles libusb's events is of no interest here.
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
