#include "device/gvdevice.h"

#include "base/usb_owners.h"

#include <cstdio>
#include <memory>

GVDevice::GVDevice(int handle, libusb_device* dev)
    : usbdev(libusb_ref_device(dev))
    , busNumber(libusb_get_bus_number(dev))
    , devAddress(libusb_get_device_address(dev))
    , devHnd(handle) {
}

GVDevice::~GVDevice() noexcept(false) {
    const DeviceReference reference(usbdev);
    const std::unique_ptr<EndableTransfer> freed(m_endableTransfer.load());
    if (usbdev != nullptr) {
        CloseDev();
    }
}

const char* GVDevice::GetUsbDevPtr() {
    static char usbdev_ptr[64];
    char text[sizeof usbdev_ptr];
    std::snprintf(text, sizeof text, "%p", static_cast<void*>(usbdev));
    relaxed::storeText(usbdev_ptr, text);
    return usbdev_ptr;
}
