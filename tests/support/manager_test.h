// A fresh manager for each test, built in place of the global one so that the exported functions use it.
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
    // Without polling, so that only the test calls libusb. A test that needs polling restarts the manager.
    static constexpr const char* quiet = "nopnp";

    ManagerTest() {
        restart(quiet);
        fake_libusb::takeCalls();
    }

    // The manager must release everything when it is destroyed, whatever a test did.
    ~ManagerTest() override {
        fake_libusb::setEventsHandled(false);
        g_GvUsbMan.~GVDrvHnd();
        EXPECT_EQ(fake_libusb::leftovers(), "");
        EXPECT_EQ(fake_libusb::misuses(), std::vector<std::string>());
        build(quiet);
    }
    ManagerTest(const ManagerTest&) = delete;
    ManagerTest& operator=(const ManagerTest&) = delete;

    // Simulate unloading and loading: destroy the manager and build a new one with this configuration file.
    static void restart(const std::string& configuration) {
        g_GvUsbMan.~GVDrvHnd();
        build(configuration);
    }

    // Plug in a reader with this device ID, scan and open it. Returns its handle.
    static int openReader(const std::string& name, const std::string& devId) {
        fake_libusb::plug(name, fake_libusb::bulkReader(devId));
        EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
        return GVUSB_OpenDevice(static_cast<unsigned>(std::stoul(devId, nullptr, 16)));
    }

private:
    static void build(const std::string& configuration) {
        fake_libusb::reset();
        support::setConfigurationText(configuration);
        const int sleepsBefore = support::sleepsBegun();
        new (&g_GvUsbMan) GVDrvHnd;
        // Wait until the worker has logged its start, so that the line does not appear during the test.
        while (g_GvUsbMan.m_bThreadStarted && support::sleepsBegun() == sleepsBefore) {
            std::this_thread::yield();
        }
    }
};
