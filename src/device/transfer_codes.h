// The codes of failed transfers.
#pragma once

#include "gvusb.h"

#include <libusb.h>

// Translate libusb's code. "otherwise" is for failures that have no code of their own.
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
