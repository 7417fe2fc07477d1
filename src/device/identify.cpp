#include "device/gvdevice.h"

#include "base/log.h"
#include "base/numbers.h"
#include "device/search_match.h"
#include "device/string_descriptor.h"
#include "gvusb.h"

#include <algorithm>
#include <cstring>

bool GVDevice::IsDevice(unsigned char bus, unsigned char address) {
    return busNumber == bus && devAddress == address;
}

bool GVDevice::IsDevice(_GVUSB_SCANSEARCH* search) {
    return matches(search, {.devId = devId, .famName = famName, .devName = devName});
}

int GVDevice::IdentifyDevice() {
    const MutexLock lock(mutex);
    CloseDev(); // otherwise an open handle would leak
    libusb_device_handle* handle = nullptr;
    if (g_libusb_open(usbdev, &handle, openOption) != 0) {
        return SetLastError(GVUSB_ERR_CANNOT_OPEN);
    }
    usbdev_hnd = handle;

    DescriptorText devIdText = {};
    if (const int rc = readString(usbdev_hnd, StringIndex::deviceId, devIdText); rc < 0) {
        return IdentificationFailed("devId", rc, GVUSB_ERR_DEVICE_DESCRIPTOR_READ);
    }
    log<Level::reader>("ident", "devIdStr=", devIdText);
    const auto number = hexadecimalNumber(devIdText);
    if (!number) {
        CloseDev();
        return SetLastError(GVUSB_ERR_DEVICE_DESCRIPTOR_READ);
    }
    devId = *number;
    log<Level::reader>("ident", "devId=0x", std::hex, devId);

    if (const int rc = readString(usbdev_hnd, StringIndex::familyName, famName); rc < 0) {
        return IdentificationFailed("famName", rc, GVUSB_ERR_STRING_DESCRIPTOR_READ);
    }
    log<Level::reader>("ident", "famName=", famName);
    if (const int rc = readString(usbdev_hnd, StringIndex::deviceName, devName); rc < 0) {
        return IdentificationFailed("devName", rc, GVUSB_ERR_STRING_DESCRIPTOR_READ);
    }
    log<Level::reader>("ident", "devName=", devName);
    // Programs that read the log expect devName in this message, although the interface type is read.
    if (const int rc = readString(usbdev_hnd, StringIndex::interfaceType, intType); rc < 0) {
        return IdentificationFailed("devName", rc, GVUSB_ERR_STRING_DESCRIPTOR_READ);
    }
    std::replace(intType, intType + std::strlen(intType), ' ', '-');
    log<Level::reader>("ident", "intType=", intType);

    CloseDev();
    log<Level::reader>("ident", "ok");
    return SetLastError(GVUSB_OK);
}

int GVDevice::IdentificationFailed(const char* text, int usbResult, int code) {
    CloseDev();
    log<Level::reader>("ident", "libusb_get_string_descriptor_ascii(", text, ") returned ", usbResult);
    return SetLastError(code);
}

bool GVDevice::IsPresent() {
    const MutexLock lock(mutex);
    if (usbdev_hnd == nullptr) {
        log<Level::reader>("is present", "device not open error");
        SetLastError(GVUSB_ERR_NOT_OPENED);
        return false;
    }
    DescriptorText devIdText = {};
    if (const int rc = readString(usbdev_hnd, StringIndex::deviceId, devIdText); rc < 0) {
        log<Level::reader>("is present", "libusb_get_string_descriptor_ascii(devId) returned ", rc);
        SetLastError(GVUSB_ERR_NOT_PRESENT);
        return false;
    }
    log<Level::reader>("is present", "ok");
    SetLastError(GVUSB_OK);
    return true;
}
