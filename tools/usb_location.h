// Where a reader is on the USB, which the library does not report.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

struct UsbLocation {
    unsigned int bus = 0;
    unsigned int address = 0; // of the device on this bus, until it is plugged in again
    std::string path;         // as in "usb:1-2.3": bus 1, port 3 of the hub at port 2; empty if unknown
    bool hasBulkEndpoints = false;
};

// Whether the text has the form of such a path.
bool isUsbPath(std::string_view text);

// The location of the one reader that this process has open. Nothing if it cannot be found out.
std::optional<UsbLocation> locationOfOpenReader();

// How many devices have the vendor ID and a product ID of the readers, whether the library can identify them
// or not.
std::size_t countReadersOnBus();
