#include "manager/gvdrvhnd.h"

#include "base/log.h"
#include "base/usb_owners.h"
#include "device/gvdevice.h"
#include "manager/replace.h"

#include <utility>

namespace {

void logUnwanted(const GVDevice& device) {
    log<Level::manager>("scan", "Don't want: devId=0x", std::hex, device.devId, " devName=", device.devName,
                        " famName=", device.famName);
}

} // namespace

// A reader for the new scan list.
struct GVDrvHnd::ChosenDevice {
    OwnedDevice device; // null once another reader with the same device ID has taken its place
    Replacement replacement = {};
};

int GVDrvHnd::DiscoverDevices(_GVUSB_SCANSEARCH* search) {
    logScanSearchOpt(search);
    const bool parallel = IsParallel();
    const MutexLock scanLock(m_mtxScanList);
    const MutexLock listLock(m_mtxDevList);
    return RebuildScanList(search, parallel, std::nullopt);
}

// Other threads see either the old list or the new one. If they can look while readers are identified, the old one stays
// until then.
int GVDrvHnd::RebuildScanList(_GVUSB_SCANSEARCH* search, bool parallel, std::optional<int> cursor) {
    ForgetReported();
    if (!parallel) {
        EmptyScanList();
    }
    const UsbDeviceList usbDevices(m_bLibUsbUsable);
    log<Level::manager>("scan", "numDev=", usbDevices.count());
    ChosenDevices chosen;
    try {
        chosen = ChooseDevices(usbDevices, search, parallel);
        m_ScanList.reserve(chosen.size());
    } catch (...) {
        EmptyScanList();
        throw;
    }
    FillScanList(chosen);
    if (cursor) {
        m_iScanCursor = chosen.empty() ? -1 : *cursor;
    }
    ReplaceReopenedDevices(chosen, parallel);
    logScanList();
    return static_cast<int>(chosen.size());
}

// Return the readers that match the search, in the order of the bus.
GVDrvHnd::ChosenDevices GVDrvHnd::ChooseDevices(const UsbDeviceList& usbDevices, _GVUSB_SCANSEARCH* search,
                                                bool parallel) {
    ChosenDevices chosen;
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
            ChooseNewDevice(usbDevice, search, parallel, chosen);
        }
    }
    return chosen;
}

void GVDrvHnd::ChooseOpenDevice(GVDevice& open, _GVUSB_SCANSEARCH* search, ChosenDevices& chosen) {
    if (!open.IsDevice(search)) {
        logUnwanted(open);
        return;
    }
    chosen.push_back({.device = OwnedDevice(open.Retain())});
    log<Level::manager>("scan", "usbDev allready in device list. devId=0x", std::hex, open.devId);
}

void GVDrvHnd::ChooseNewDevice(libusb_device* usbDevice, _GVUSB_SCANSEARCH* search, bool parallel,
                               ChosenDevices& chosen) {
    OwnedDevice created(new GVDevice(NextDeviceHandle(), usbDevice));
    created->owner = true;
    int code;
    {
        const MutexUnlock usb(m_mtxDevList, parallel);
        code = created->IdentifyDevice();
    }
    if (code != 0) {
        created.reset();
        log<Level::manager>("scan", "Identify return-code=", code);
        return;
    }
    if (!created->IsDevice(search)) {
        logUnwanted(*created);
        return;
    }
    GVDevice& device = *created;
    chosen.push_back({.device = std::move(created)});
    log<Level::manager>("scan", "New device: devHnd=0x", std::hex, device.devHnd, " devId=0x", device.devId);
}

// A reader that another thread has opened since it was identified, or is opening or closing, keeps its record.
void GVDrvHnd::FillScanList(ChosenDevices& chosen) {
    for (ChosenDevice& entry : chosen) {
        if (GVDevice* const known = KnownDevice(entry.device->usbdev);
            known != nullptr && known != entry.device.get()) {
            entry.device = OwnedDevice(known->Retain());
        }
    }
    EmptyScanList();
    for (ChosenDevice& entry : chosen) {
        AddToScanList(*entry.device);
    }
}

GVDevice* GVDrvHnd::KnownDevice(const libusb_device* usbDevice) {
    if (GVDevice* const open = DL_DeviceOfUsbDev(usbDevice)) {
        return open;
    }
    for (GVDevice* next = m_Changing; next != nullptr; next = next->nextChanging) {
        if (next->usbdev == usbDevice && IsInScanList(next)) {
            return next;
        }
    }
    return nullptr;
}

// Put the readers that were found into the place of open ones with the same device ID. If several readers have the same
// device ID, this can destroy one of them; its entry is then null. In a parallel call, all records change their places before
// other threads can look. Only then are the readers opened.
void GVDrvHnd::ReplaceReopenedDevices(ChosenDevices& chosen, bool parallel) {
    for (ChosenDevice& entry : chosen) {
        if (entry.device.get() == nullptr || !IsInScanList(entry.device.get())) {
            continue;
        }
        entry.replacement = ReplaceListed(*entry.device);
        if (!parallel) {
            FinishReplacement(chosen, entry, parallel);
        }
    }
    for (ChosenDevice& entry : chosen) {
        FinishReplacement(chosen, entry, parallel);
    }
}

void GVDrvHnd::FinishReplacement(ChosenDevices& chosen, ChosenDevice& entry, bool parallel) {
    if (entry.replacement.oldDev.get() == nullptr) {
        return;
    }
    for (ChosenDevice& other : chosen) {
        if (other.device.get() == entry.replacement.oldDev.get()) {
            other.device.reset();
        }
    }
    FinishReplacement(*entry.device, entry.replacement, parallel);
    log<Level::manager>("scan", "Replace in device list: devId=0x", std::hex, entry.device->devId);
}
