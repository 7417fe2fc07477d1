// Where a reader is on the USB, which the library does not report.
#pragma once

#include <compare>
#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <vector>

// The node of a device, such as /dev/bus/usb/001/007.
struct UsbNode {
    unsigned int bus = 0;
    unsigned int address = 0; // of the device on this bus, until it is plugged in again

    auto operator<=>(const UsbNode&) const = default; // NOLINT(modernize-use-nullptr): a false alarm
};

struct UsbLocation {
    unsigned int bus = 0;
    unsigned int address = 0; // of the device on this bus, until it is plugged in again
    std::string path;         // as in "usb:1-2.3": bus 1, port 3 of the hub at port 2; empty if unknown
    bool hasBulkEndpoints = false;

    bool operator==(const UsbLocation&) const = default;
};

// The nodes that this process has open.
std::set<UsbNode> openUsbNodes();

// The location of the one reader that this process has open. Nothing if it cannot be found out.
std::optional<UsbLocation> locationOfOpenReader();

// Where the devices are that have the vendor ID and a product ID of the readers, whether the library can identify them or
// not. The endpoints are not read.
std::vector<UsbLocation> readersOnBus();
