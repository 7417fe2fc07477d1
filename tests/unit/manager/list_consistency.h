// What holds of the manager's lists whatever happened, as a text that says what does not.
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

// Everything that the manager holds of these devices is held by a record that stands in a list, once in each;
// what is open can be reached by its handle.
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
        expect(count(scanned, record) <= 1, what, "stands in the scan list more than once");
        expect(count(opened, record) <= 1, what, "stands in the device list more than once");
        expect(handles.insert(record->devHnd).second, what, "the handle is another record's too");
        if (count(opened, record) == 0) {
            expect(record->owner, what, "only the scan list has it, but does not own it");
            expect(!isOpen(*record), what, "open, but not in the device list");
        } else if (count(scanned, record) == 0) {
            expect(!record->owner, what, "only the device list has it, but does not own it");
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
        expect(fake_libusb::references(name) == references, name, "its references are not those of records");
        expect(fake_libusb::openHandles(name) == openHandles, name, "its handles are not those of records");
    }
    return text;
}

} // namespace manager_lists
