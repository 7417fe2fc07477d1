// The rules of the manager's lists as an expectation, and the manager's end and new beginning for sweeps.
#pragma once

#include "list_consistency.h"
#include "mutex_probe.h"

#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace manager_lists {

inline void expectConsistentLists(const std::vector<std::string>& deviceNames) {
    EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxScanList));
    EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxDevList));
    EXPECT_EQ(inconsistencies(deviceNames), "");
}

// Unloads and loads, in effect, with the configuration file that there is; nothing may be left over.
inline void reload() {
    fake_libusb::stopFailing();
    // In a thread of its own: the manager goes with a mutex held, and the thread sanitizer counts that
    // against the thread as long as it lives.
    std::thread([] { g_GvUsbMan.~GVDrvHnd(); }).join();
    EXPECT_EQ(fake_libusb::leftovers(), "");
    EXPECT_EQ(fake_libusb::misuses(), std::vector<std::string>());
    fake_libusb::reset();
    new (&g_GvUsbMan) GVDrvHnd;
}

} // namespace manager_lists
