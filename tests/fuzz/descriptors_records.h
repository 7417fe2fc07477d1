// Checks of the manager's records.
#pragma once

#include "device/gvdevice.h"
#include "expect.h"
#include "fake_libusb.h"
#include "manager/gvdrvhnd.h"
#include "manager/opening.h"

#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace fuzz {

inline bool isTerminated(const char (&text)[256]) {
    return std::memchr(text, 0, sizeof text) != nullptr;
}

inline void expectReferencesOfRecords(const std::string& name, const std::set<GVDevice*>& records) {
    const libusb_device* const device = fake_libusb::device(name);
    int references = 0;
    int open = 0;
    for (const GVDevice* const record : records) {
        if (record->usbdev == device) {
            ++references;
            open += isOpen(*record) ? 1 : 0;
        }
    }
    expect(fake_libusb::references(name) == references, "each reference belongs to a record");
    expect(fake_libusb::openHandles(name) == open, "each open handle belongs to a record");
}

// Every reference to these devices and every open handle belongs to a record in a list.
inline void expectConsistentRecords(const std::vector<std::string>& deviceNames) {
    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    std::set<GVDevice*> records(g_GvUsbMan.m_ScanList.begin(), g_GvUsbMan.m_ScanList.end());
    records.insert(g_GvUsbMan.m_DeviceList.begin(), g_GvUsbMan.m_DeviceList.end());
    records.erase(nullptr);
    std::set<int> handles;
    for (const GVDevice* const record : records) {
        expect(handles.insert(record->devHnd).second, "each record has its own handle");
        expect(isTerminated(record->famName) && isTerminated(record->devName) &&
                   isTerminated(record->intType),
               "a record's texts are terminated");
    }
    for (const std::string& name : deviceNames) {
        expectReferencesOfRecords(name, records);
    }
}

} // namespace fuzz
