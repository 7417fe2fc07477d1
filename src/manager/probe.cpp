#include "manager/gvdrvhnd.h"

#include "base/log.h"
#include "base/numbers.h"
#include "base/reader_facts.h"
#include "base/usb_owners.h"
#include "device/string_descriptor.h"

bool GVDrvHnd::IsUsableGavoDevice(libusb_device_descriptor* desc) {
    return desc->idVendor == GVUSB_VENDOR_ID && isReaderProduct(desc->idProduct);
}

unsigned int GVDrvHnd::ReadDeviceIdOfUsbDev(libusb_device* dev) {
    unsigned int devId = 0;
    ReadDeviceId(dev, devId);
    return devId;
}

// Set devId if it can be read, to 0 if it is not a number. Return 0 or libusb's code of the failure.
int GVDrvHnd::ReadDeviceId(libusb_device* dev, unsigned int& devId) {
    libusb_device_handle* opened = nullptr;
    if (const int rc = libusb_open(dev, &opened); rc != 0) {
        return rc;
    }
    const DeviceHandle handle(opened);
    log<Level::poll>("update", "read device id");
    DescriptorText text = {};
    const int rc = readString(handle.get(), StringIndex::deviceId, text);
    if (rc <= 0) {
        return rc;
    }
    devId = hexadecimalNumber(text).value_or(0);
    return LIBUSB_SUCCESS;
}
