#include "manager/gvdrvhnd.h"

#include "base/log.h"
#include "base/usb_owners.h"
#include "device/gvdevice.h"

namespace {

void logUnwanted(const GVDevice& device) {
    log<Level::manager>("scan", "Don't want: devId=0x", std::hex, device.devId, " devName=", device.devName,
                        " famName=", device.famName);
}

} // namespace

// A reader for the new scan list. The device list owns an open one; `created` owns a new one until it is in the list.
struct GVDrvHnd::ChosenDevice {
    GVDevice* device;
    OwnedDevice created;
};

int GVDrvHnd::DiscoverDevices(_GVUSB_SCANSEARCH* search) {
    logScanSearchOpt(search);
    const MutexLock scanLock(m_mtxScanList);
    const MutexLock listLock(m_mtxDevList);
    return RebuildScanList(search);
}

// The list is empty in the meantime, but other threads cannot see it without the device-list mutex.
int GVDrvHnd::RebuildScanList(_GVUSB_SCANSEARCH* search) {
    ForgetReported();
    EmptyScanList();
    const UsbDeviceList usbDevices(m_bLibUsbUsable);
    log<Level::manager>("scan", "numDev=", usbDevices.count());
    std::vector<ChosenDevice> chosen = ChooseDevices(usbDevices, search);
    const int count = static_cast<int>(chosen.size());
    FillScanList(std::move(chosen));
    ReplaceReopenedDevices();
    logScanList();
    return count;
}

// Return the readers that match the search, in the order of the bus.
std::vector<GVDrvHnd::ChosenDevice> GVDrvHnd::ChooseDevices(const UsbDeviceList& usbDevices,
                                                            _GVUSB_SCANSEARCH* search) {
    std::vector<ChosenDevice> chosen;
    for (libusb_device* const usbDevice : usbDevices.devices()) {
        libusb_device_descriptor descriptor = {};
        libusb_get_device_descriptor(usbDevice, &descriptor);
        logDevice(usbDevice, &descriptor);
        if (!IsUsableGavoDevice(&descriptor)) {
            continue;
        }
        if (GVDevice* const open = DL_DeviceOfUsbDev(usbDevice)) {
            ChooseOpenDevice(*open, search, chosen);
        } else {
            ChooseNewDevice(usbDevice, search, chosen);
        }
    }
    return chosen;
}

void GVDrvHnd::ChooseOpenDevice(GVDevice& open, _GVUSB_SCANSEARCH* search,
                                std::vector<ChosenDevice>& chosen) {
    if (!open.IsDevice(search)) {
        logUnwanted(open);
        return;
    }
    chosen.push_back({.device = &open, .created = OwnedDevice()});
    log<Level::manager>("scan", "usbDev allready in device list. devId=0x", std::hex, open.devId);
}

void GVDrvHnd::ChooseNewDevice(libusb_device* usbDevice, _GVUSB_SCANSEARCH* search,
                               std::vector<ChosenDevice>& chosen) {
    OwnedDevice created(new GVDevice(NextDeviceHandle(), usbDevice));
    created->owner = true;
    if (const int code = created->IdentifyDevice(); code != 0) {
        created.reset();
        log<Level::manager>("scan", "Identify return-code=", code);
        return;
    }
    if (!created->IsDevice(search)) {
        logUnwanted(*created);
        return;
    }
    GVDevice& device = *created;
    chosen.push_back({.device = &device, .created = std::move(created)});
    log<Level::manager>("scan", "New device: devHnd=0x", std::hex, device.devHnd, " devId=0x", device.devId);
}

void GVDrvHnd::FillScanList(std::vector<ChosenDevice> chosen) {
    m_ScanList.reserve(chosen.size());
    for (ChosenDevice& entry : chosen) {
        m_ScanList.push_back(entry.device);
        static_cast<void>(entry.created.release());
    }
}

// Put the readers that were found into the place of open ones with the same device ID. If several readers have the same
// device ID, this can destroy one of them; its entry is then null.
void GVDrvHnd::ReplaceReopenedDevices() {
    for (std::size_t i = 0; i < m_ScanList.size(); ++i) {
        GVDevice* const device = m_ScanList[i];
        if (device != nullptr && DL_ReplaceDevice(device)) {
            log<Level::manager>("scan", "Replace in device list: devId=0x", std::hex, device->devId);
        }
    }
}
