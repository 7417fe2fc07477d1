// What the library makes of a libusb function that failed: the codes that its callers are promised.
#pragma once

#include "failing.h"
#include "gvusb.h"

#include <string_view>

namespace failures {

// Of opening: the handle, then configuration 1. `nth` is the call of libusb_open that this is, 0 for any.
inline int openingCode(const Failing& failing, std::string_view device, std::size_t nth = 0) {
    if (failing.fails("libusb_open", device, nth)) {
        return GVUSB_ERR_CANNOT_OPEN;
    }
    if (failing.fails("libusb_get_config_descriptor", device)) {
        return GVUSB_ERR_CONFIG_DESCRIPTOR_READ;
    }
    return failing.fails("libusb_set_configuration", device) ? GVUSB_ERR_SET_CONFIGURATION : GVUSB_OK;
}

// Of a transfer that libusb answered with an error.
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

// Of an exchange of frames: the endpoints and the interface at the first one after opening, then the frames.
// Detaching a kernel driver and clearing halts may fail; a driver that stays keeps the interface.
inline int exchangeCode(const Failing& failing, bool kernelDriver = false) {
    if (failing.fails("libusb_get_device_descriptor")) {
        return GVUSB_ERR_NO_CONFIGURATION; // none is known then
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

// Whether a scan or a poll that finds the device for the first time comes to nothing: its descriptor, opening it,
// or any of its texts. `opens` is how often it is opened to read them.
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

// Whether a scan or a poll misses a device that the library has a record of: all that it reads is the descriptor.
inline bool isMissed(const Failing& failing, std::string_view device) {
    return failing.fails("libusb_get_device_list") || failing.fails("libusb_get_device_descriptor", device);
}

} // namespace failures
