#include "manager/gvdrvhnd.h"

#include "api/log.h"
#include "base/numbers.h"
#include "base/reader_facts.h"
#include "base/usb_owners.h"
#include "device/gvdevice.h"
#include "device/string_descriptor.h"

#include <memory>

namespace {

// A reader for the new scan list. The device list owns an open one; `created` owns a new one until it is in the list.
struct ChosenDevice {
    GVDevice* device;
    std::unique_ptr<GVDevice> created;
};

void logUnwanted(const GVDevice& device) {
    if (GVLOG_Level() > 0) {
        logLine("scan", "Don't want: devId=0x", std::hex, device.devId, " devName=", device.devName,
                " famName=", device.famName);
    }
}

} // namespace

int GVDrvHnd::DiscoverDevices(_GVUSB_SCANSEARCH* search) {
    logScanSearchOpt(search);
    const MutexLock scanLock(m_mtxScanList);
    const MutexLock listLock(m_mtxDevList);
    return RebuildScanList(search);
}

// The list is empty in the meantime, but other threads cannot see it without the device-list mutex.
int GVDrvHnd::RebuildScanList(_GVUSB_SCANSEARCH* search) {
    m_ReportedConnects.clear();
    m_ReportedDisconnects.clear();
    EmptyScanList();

    const UsbDeviceList usbDevices(m_bLibUsbUsable);
    if (GVLOG_Level() > 0) {
        logLine("scan", "numDev=", usbDevices.count());
    }
    std::vector<ChosenDevice> chosen;
    for (libusb_device* const usbDevice : usbDevices.devices()) {
        libusb_device_descriptor descriptor = {};
        libusb_get_device_descriptor(usbDevice, &descriptor);
        logDevice(usbDevice, &descriptor);
        if (!IsUsableGavoDevice(&descriptor)) {
            continue;
        }
        if (GVDevice* const open = DL_DeviceOfUsbDev(usbDevice)) {
            if (!open->IsDevice(search)) {
                logUnwanted(*open);
                continue;
            }
            chosen.push_back({.device = open, .created = nullptr});
            if (GVLOG_Level() > 0) {
                logLine("scan", "usbDev allready in device list. devId=0x", std::hex, open->devId);
            }
            continue;
        }
        auto created = std::make_unique<GVDevice>(NextDeviceHandle(), usbDevice);
        created->owner = true;
        if (const int code = created->IdentifyDevice(); code != 0) {
            created.reset();
            if (GVLOG_Level() > 0) {
                logLine("scan", "Identify return-code=", code);
            }
            continue;
        }
        if (!created->IsDevice(search)) {
            logUnwanted(*created);
            continue;
        }
        GVDevice& device = *created;
        chosen.push_back({.device = &device, .created = std::move(created)});
        if (GVLOG_Level() > 0) {
            logLine("scan", "New device: devHnd=0x", std::hex, device.devHnd, " devId=0x", device.devId);
        }
    }

    m_ScanList.reserve(chosen.size());
    for (ChosenDevice& entry : chosen) {
        m_ScanList.push_back(entry.device);
        static_cast<void>(entry.created.release());
    }
    // If several readers have the same device ID, a replacement can destroy one of them; its entry is then null.
    for (std::size_t i = 0; i < m_ScanList.size(); ++i) {
        GVDevice* const device = m_ScanList[i];
        if (device != nullptr && DL_ReplaceDevice(device) && GVLOG_Level() > 0) {
            logLine("scan", "Replace in device list: devId=0x", std::hex, device->devId);
        }
    }
    logScanList();
    return static_cast<int>(chosen.size());
}

bool GVDrvHnd::IsUsableGavoDevice(libusb_device_descriptor* desc) {
    return desc->idVendor == GVUSB_VENDOR_ID && desc->idProduct >= lowestReaderProduct &&
           desc->idProduct <= highestReaderProduct;
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
    if (GVLOG_Level() > 2) {
        logLine("update", "read device id");
    }
    DescriptorText text = {};
    const int rc = readString(handle.get(), StringIndex::deviceId, text);
    if (rc <= 0) {
        return rc;
    }
    devId = hexadecimalNumber(text).value_or(0);
    return LIBUSB_SUCCESS;
}
