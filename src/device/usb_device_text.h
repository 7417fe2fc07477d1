// The address of a libusb device as text, for the log.
#pragma once

#include <cstdio>
#include <ostream>

#include <libusb.h>

struct UsbDeviceText {
    explicit UsbDeviceText(const libusb_device* dev) {
        std::snprintf(text, sizeof text, "%p", static_cast<const void*>(dev));
    }
    friend std::ostream& operator<<(std::ostream& out, const UsbDeviceText& device) {
        return out << device.text;
    }
    char text[24];
};
