#include "device/gvdevice.h"

#include "base/key_text.h"
#include "base/numbers.h"
#include "device/string_descriptor.h"
#include "gvusb.h"

#include <cstdio>
#include <cstring>

int GVDevice::GetDevicePara(const char* key, char* value) {
    const MutexLock lock(mutex);
    SetLastError(GVUSB_OK);
    if (isKey(key, "TIMEOUT")) {
        writeDecimal(value, timeout);
    } else if (isKey(key, "DEVICEHND")) {
        writeDecimal(value, usbdev_hnd == nullptr ? 0 : relaxed::load(devHnd));
    } else if (isKey(key, "DEVICE-ID")) {
        std::snprintf(value, GVUSB_PARAMETER_SIZE, "%X", devId);
    } else if (isKey(key, "DEVICENAME")) {
        std::strcpy(value, devName);
    } else if (isKey(key, "FAMILYNAME")) {
        std::strcpy(value, famName);
    } else if (isKey(key, "INTERFACE")) {
        std::strcpy(value, intType);
    } else if (isKey(key, "TYPENUMBER")) {
        if (usbdev_hnd == nullptr) {
            return SetLastError(GVUSB_ERR_NOT_OPENED);
        }
        if (readString(usbdev_hnd, StringIndex::typeNumber, value) < 0) {
            return SetLastError(GVUSB_ERR_STRING_DESCRIPTOR_READ);
        }
    } else if (isKey(key, "PRESENT")) {
        // Deadlock: IsPresent takes the mutex that is held here. This behavior is documented and must stay.
        std::strcpy(value, IsPresent() ? "1" : "0");
    } else {
        return SetLastError(GVUSB_ERR_UNKNOWN_PARAMETER);
    }
    return GVUSB_OK;
}

int GVDevice::SetDevicePara(const char* key, const char* value) {
    const MutexLock lock(mutex);
    SetLastError(GVUSB_OK);
    if (isKey(key, "TIMEOUT")) {
        const auto milliseconds = leadingNumber<std::uint32_t>(value);
        if (milliseconds.value_or(0) < 1) {
            return SetLastError(GVUSB_ERR_OUT_OF_RANGE);
        }
        timeout = *milliseconds;
    } else if (isKey(key, "RESETPIPE")) {
        if (usbdev_hnd == nullptr) {
            return SetLastError(GVUSB_ERR_NOT_OPENED);
        }
        ResetBulkEndPoints();
    } else if (isKey(key, "RESETDEVICE")) {
        if (usbdev_hnd == nullptr) {
            return SetLastError(GVUSB_ERR_NOT_OPENED);
        }
        if (libusb_reset_device(usbdev_hnd) != 0) {
            return SetLastError(GVUSB_ERR_PARAMETER_NOT_AVAILABLE);
        }
    } else {
        return SetLastError(GVUSB_ERR_UNKNOWN_PARAMETER);
    }
    return GVUSB_OK;
}
