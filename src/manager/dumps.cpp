#include "manager/gvdrvhnd.h"

#include "base/log.h"
#include "device/gvdevice.h"
#include "device/search_match.h"
#include "device/usb_device_text.h"

namespace {

void logDevices(const char* tag, const std::vector<GVDevice*>& devices) {
    if (!isLogged(Level::manager)) {
        return;
    }
    if (devices.empty()) {
        logLine(tag, "no devices");
    }
    for (std::size_t i = 0; i < devices.size(); ++i) {
        GVDevice* const device = devices[i];
        if (device == nullptr) {
            logLine(tag, "dev", i, " is NULL");
        } else {
            logLine(tag, "dev", i, ": devHnd=0x", std::hex, device->devHnd, " devId=0x", device->devId,
                    " usbDevPtr=", UsbDeviceText(device->usbdev), " owner=", device->owner);
        }
    }
}

} // namespace

void GVDrvHnd::logScanSearchOpt(_GVUSB_SCANSEARCH* search) {
    if (!isLogged(Level::manager)) {
        return;
    }
    if (search == nullptr) {
        logLine("search-opt", "all");
    } else {
        logLine("search-opt", "mask=", search->mask, " devId=0x", deviceIdText(*search),
                " devName=", fieldText(search->devName), " famName=", fieldText(search->famName));
    }
}

void GVDrvHnd::logDevice(libusb_device* dev, libusb_device_descriptor* desc) {
    if (!isLogged(Level::manager)) {
        return;
    }
    const unsigned bus = libusb_get_bus_number(dev);
    const unsigned address = libusb_get_device_address(dev);
    logLine("scan", "device: vendor=0x", std::hex, desc->idVendor, " prod=", std::dec, desc->idProduct,
            " bus=", bus, " busAddr=", address, desc->idVendor == GVUSB_VENDOR_ID ? "   GAVO" : "");
}

void GVDrvHnd::logScanList() {
    logDevices("scan-list", m_ScanList);
}

void GVDrvHnd::logDeviceList() {
    logDevices("device-list", m_DeviceList);
}
