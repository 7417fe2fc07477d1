#include "device/gvdevice.h"

#include "base/log.h"
#include "base/usb_owners.h"
#include "gvusb.h"

int g_libusb_open(libusb_device* dev, libusb_device_handle** hnd, int /*option*/) {
    return libusb_open(dev, hnd);
}

int GVDevice::OpenDevice() {
    const MutexLock lock(mutex);
    if (usbdev == nullptr) {
        log<Level::reader>("open", "no usbdev-structure");
        return SetLastError(GVUSB_ERR_CANNOT_OPEN);
    }
    if (usbdev_hnd != nullptr) {
        log<Level::reader>("open", "allready opened");
        return SetLastError(GVUSB_OK);
    }
    libusb_device_handle* handle = nullptr;
    if (const int rc = g_libusb_open(usbdev, &handle, openOption); rc < 0) {
        log<Level::reader>("open", "libusb_open returned ", rc);
        return SetLastError(GVUSB_ERR_CANNOT_OPEN);
    }
    usbdev_hnd = handle;
    if (const int code = SetConfiguration(); code < 0) {
        return code;
    }
    log<Level::reader>("open", "devHnd=0x", std::hex, relaxed::load(devHnd), " devId=0x", devId, ": ok");
    return SetLastError(GVUSB_OK);
}

int GVDevice::SetConfiguration() {
    constexpr int wanted = 1;
    libusb_config_descriptor* first = nullptr;
    if (const int rc = libusb_get_config_descriptor(usbdev, 0, &first); rc < 0) {
        log<Level::reader>("set config", "libusb_get_config_descriptor(0) returned ", rc);
        return GVUSB_ERR_CONFIG_DESCRIPTOR_READ;
    }
    const ConfigDescriptor config(first);
    if (config->bConfigurationValue == wanted) {
        return GVUSB_OK;
    }
    if (const int rc = libusb_set_configuration(usbdev_hnd, wanted); rc < 0) {
        log<Level::reader>("set config", "libusb_set_configuration(", wanted, ") returned ", rc);
        return GVUSB_ERR_SET_CONFIGURATION;
    }
    return GVUSB_OK;
}

int GVDevice::CloseDevice() {
    const MutexLock lock(mutex);
    CloseDev();
    log<Level::reader>("close", "devHnd=0x", std::hex, relaxed::load(devHnd), " devId=0x", devId, ": ok");
    return SetLastError(GVUSB_OK);
}

void GVDevice::CloseDev() {
    if (usbdev_hnd == nullptr) {
        return;
    }
    libusb_release_interface(usbdev_hnd, 0);
    libusb_close(usbdev_hnd);
    usbdev_hnd = nullptr;
    ForgetBulkEndPoints();
}
