// The library's return codes for each libusb failure.
#pragma once

#include "failing.h"
#include "gvusb.h"

#include <string_view>

namespace failures {

// The code of opening a reader: opening the handle, then setting configuration 1. `nth` is the number of the
// libusb_open() call, 0 for any.
inline int openingCode(const Failing& failing, std::string_view device, std::size_t nth = 0) {
    if (failing.fails("libusb_open", device, nth)) {
        return GVUSB_ERR_CANNOT_OPEN;
    }
    if (failing.fails("libusb_get_config_descriptor", device)) {
        return GVUSB_ERR_CONFIG_DESCRIPTOR_READ;
    }
    return failing.fails("libusb_set_configuration", device) ? GVUSB_ERR_SET_CONFIGURATION : GVUSB_OK;
}

// The code of a transfer that failed with a libusb error.
inline int transferFailure(int usbCode, int otherwise) {
    switch (usbCode) {
    case LIBUSB_ERROR_TIMEOUT:
        return GVUSB_ERR_TIMEOUT;
    case LIBUSB_ERROR_NO_DEVICE:
        return GVUSB_ERR_NOT_PRESENT;
    default:
        return otherwise;
    }
}

// The code of a frame exchange: the first one after opening looks up the endpoints and claims the interface.
// Failures to detach a kernel driver and to clear halts are ignored, but an attached driver keeps the
// interface.
inline int exchangeCode(const Failing& failing, bool kernelDriver = false) {
    if (failing.fails("libusb_get_device_descriptor")) {
        return GVUSB_ERR_NO_CONFIGURATION; // no configuration is known then
    }
    if (failing.fails("libusb_get_config_descriptor")) {
        return GVUSB_ERR_CONFIG_DESCRIPTOR_READ;
    }
    if (failing.fails("libusb_claim_interface") ||
        (kernelDriver && failing.fails("libusb_detach_kernel_driver"))) {
        return GVUSB_ERR_CANNOT_CLAIM;
    }
    if (failing.fails("libusb_bulk_transfer")) {
        return transferFailure(failing.code(), GVUSB_ERR_BULK_TRANSFER);
    }
    if (failing.fails("libusb_control_transfer")) {
        return transferFailure(failing.code(), GVUSB_ERR_CONTROL_TRANSFER);
    }
    return GVUSB_OK;
}

// Whether a scan or a poll that finds the device for the first time cannot identify it: reading its
// descriptor, opening it, or reading a string fails. `opens` is how often it is opened to read them.
inline bool staysUnidentified(const Failing& failing, std::string_view device, std::size_t opens = 1) {
    if (failing.fails("libusb_get_device_list") || failing.fails("libusb_get_device_descriptor", device) ||
        failing.fails("libusb_get_string_descriptor_ascii", device)) {
        return true;
    }
    for (std::size_t nth = 1; nth <= opens; ++nth) {
        if (failing.fails("libusb_open", device, nth)) {
            return true;
        }
    }
    return false;
}

// Whether a scan or a poll misses a device that already has a record, of which it reads only the descriptor.
inline bool isMissed(const Failing& failing, std::string_view device) {
    return failing.fails("libusb_get_device_list") || failing.fails("libusb_get_device_descriptor", device);
}

} // namespace failures
