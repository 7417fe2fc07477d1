// What holds of the manager's lists whatever happened, and the manager's end and new beginning for sweeps.
#pragma once

#include "manager_lists.h"
#include "mutex_probe.h"

#include <algorithm>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace manager_lists {

inline long count(const Devices& devices, const GVDevice* device) {
    return std::count(devices.begin(), devices.end(), device);
}

// Everything that the manager holds of these devices is held by a record that stands in a list, once in each;
// what is open can be reached by its handle; no list mutex is left locked.
inline void expectConsistentLists(const std::vector<std::string>& deviceNames) {
    EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxScanList));
    EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxDevList));
    const Devices scanned = scanList();
    const Devices opened = deviceList();
    std::set<GVDevice*> records(scanned.begin(), scanned.end());
    records.insert(opened.begin(), opened.end());
    records.erase(nullptr);

    std::set<int> handles;
    for (GVDevice* record : records) {
        SCOPED_TRACE("devHnd 0x" + hex(static_cast<unsigned>(record->devHnd)));
        EXPECT_LE(count(scanned, record), 1);
        EXPECT_LE(count(opened, record), 1);
        EXPECT_TRUE(handles.insert(record->devHnd).second) << "the handle is another record's too";
        if (count(opened, record) == 0) {
            EXPECT_TRUE(record->owner);
            EXPECT_FALSE(isOpen(*record));
        } else if (count(scanned, record) == 0) {
            EXPECT_FALSE(record->owner);
        }
    }
    for (const std::string& name : deviceNames) {
        SCOPED_TRACE(name);
        const libusb_device* const usbDevice = fake_libusb::device(name);
        int references = 0;
        int openHandles = 0;
        for (GVDevice* record : records) {
            if (record->usbdev == usbDevice) {
                ++references;
                openHandles += isOpen(*record) ? 1 : 0;
            }
        }
        EXPECT_EQ(fake_libusb::references(name), references);
        EXPECT_EQ(fake_libusb::openHandles(name), openHandles);
    }
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
