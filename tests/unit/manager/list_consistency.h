// The invariants of the manager's lists; violations are returned as text.
#pragma once

#include "manager_lists.h"

#include <algorithm>
#include <set>
#include <string>
#include <vector>

namespace manager_lists {

inline long count(const Devices& devices, const GVDevice* device) {
    return std::count(devices.begin(), devices.end(), device);
}

// Every resource of these devices belongs to a record that is in a list, at most once in each, and every open
// record can be found by its handle.
inline std::string inconsistencies(const std::vector<std::string>& deviceNames) {
    std::string text;
    const auto expect = [&](bool holds, const std::string& what, const char* rule) {
        if (!holds) {
            text += what + ": " + rule + "\n";
        }
    };
    const Devices scanned = scanList();
    const Devices opened = deviceList();
    std::set<GVDevice*> records(scanned.begin(), scanned.end());
    records.insert(opened.begin(), opened.end());
    records.erase(nullptr);

    std::set<int> handles;
    for (GVDevice* record : records) {
        const std::string what = "devHnd 0x" + hex(static_cast<unsigned>(record->devHnd));
        expect(count(scanned, record) <= 1, what, "is in the scan list more than once");
        expect(count(opened, record) <= 1, what, "is in the device list more than once");
        expect(handles.insert(record->devHnd).second, what, "another record has the same handle");
        if (count(opened, record) == 0) {
            expect(record->owner, what, "only in the scan list, which does not own it");
            expect(!isOpen(*record), what, "open, but not in the device list");
        } else if (count(scanned, record) == 0) {
            expect(!record->owner, what, "only in the device list, which does not own it");
        }
    }
    for (const std::string& name : deviceNames) {
        const libusb_device* const usbDevice = fake_libusb::device(name);
        int references = 0;
        int openHandles = 0;
        for (GVDevice* record : records) {
            if (record->usbdev == usbDevice) {
                ++references;
                openHandles += isOpen(*record) ? 1 : 0;
            }
        }
        expect(fake_libusb::references(name) == references, name, "its references differ from its records");
        expect(fake_libusb::openHandles(name) == openHandles, name,
               "its open handles differ from its records");
    }
    return text;
}

} // namespace manager_lists
