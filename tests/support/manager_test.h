// A fresh manager for each test, built in the place of the global one so that the exported functions work on
// it.
#pragma once

#include "configuration_file.h"
#include "fake_libusb.h"
#include "manager/gvdrvhnd.h"
#include "worker_sleep.h"

#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

class ManagerTest : public testing::Test {
protected:
    // Without polling, so that nothing but the test calls libusb; a test that needs more restarts the
    // manager.
    static constexpr const char* quiet = "nopnp";

    ManagerTest() {
        restart(quiet);
        fake_libusb::takeCalls();
    }

    // Whatever a test did, the manager gives everything back when it goes.
    ~ManagerTest() override {
        fake_libusb::setEventsHandled(false);
        g_GvUsbMan.~GVDrvHnd();
        EXPECT_EQ(fake_libusb::leftovers(), "");
        EXPECT_EQ(fake_libusb::misuses(), std::vector<std::string>());
        build(quiet);
    }
    ManagerTest(const ManagerTest&) = delete;
    ManagerTest& operator=(const ManagerTest&) = delete;

    // Unloads and loads, in effect: the manager goes and comes back with this configuration file.
    static void restart(const std::string& configuration) {
        g_GvUsbMan.~GVDrvHnd();
        build(configuration);
    }

private:
    static void build(const std::string& configuration) {
        fake_libusb::reset();
        support::setConfigurationText(configuration);
        const int sleepsBefore = support::sleepsBegun();
        new (&g_GvUsbMan) GVDrvHnd;
        // What the worker tells when it starts is behind it then, and does not turn up in the middle of the
        // test.
        while (g_GvUsbMan.m_bThreadStarted && support::sleepsBegun() == sleepsBefore) {
            std::this_thread::yield();
        }
    }
};
