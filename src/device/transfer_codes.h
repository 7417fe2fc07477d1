// What a failed transfer means to the caller.
#pragma once

#include "gvusb.h"

#include <libusb.h>

// The library's code for libusb's; otherwise, where the failure has no code of its own.
constexpr int transferCode(int usbResult, int otherwise) noexcept {
    switch (usbResult) {
    case LIBUSB_ERROR_TIMEOUT:
        return GVUSB_ERR_TIMEOUT;
    case LIBUSB_ERROR_NO_DEVICE:
        return GVUSB_ERR_NOT_PRESENT;
    default:
        return otherwise;
    }
}
