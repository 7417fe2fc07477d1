// Checks the invariants of the manager's lists, and reloads the manager for sweeps.
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

// Simulate unloading and loading with the current configuration file; nothing may be left over.
inline void reload() {
    fake_libusb::stopFailing();
    // In a separate thread: the manager destroys a locked mutex, which the thread sanitizer counts as held by
    // the thread until the thread ends.
    std::thread([] { g_GvUsbMan.~GVDrvHnd(); }).join();
    EXPECT_EQ(fake_libusb::leftovers(), "");
    EXPECT_EQ(fake_libusb::misuses(), std::vector<std::string>());
    fake_libusb::reset();
    new (&g_GvUsbMan) GVDrvHnd;
}

} // namespace manager_lists
