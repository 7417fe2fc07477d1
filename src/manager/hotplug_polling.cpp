#include "manager/gvdrvhnd.h"

#include "base/log.h"
#include "base/usb_owners.h"
#include "device/gvdevice.h"
#include "device/usb_device_text.h"
#include "manager/kept_records.h"
#include "manager/list_search.h"
#include "manager/replace.h"

#include <algorithm>
#include <utility>

// Poll once: compare the bus with the scan list, replace the records of readers that came back, and report those that
// came or went.
void GVDrvHnd::UpdateDevices() {
    const Reports reports = BeginReports();

    // No list mutex is held, so that handlers can call the library.
    for (const auto& [devId, devHnd] : reports.disconnects) {
        log<Level::manager>("update", "MESSAGE \"disconnect\": devId=0x", std::hex, devId, " devHnd=0x",
                            devHnd);
        ExecEventInitListCallbacks(GVUSB_EVENT_DISCONNECT, devHnd, devId);
    }
    for (const auto& [devId, devHnd] : reports.connects) {
        log<Level::manager>("update", "MESSAGE \"connect\": devId=0x", std::hex, devId);
        ExecEventInitListCallbacks(GVUSB_EVENT_CONNECT, devHnd, devId);
    }
}

// Records the reports before the mutexes are released, because a report belongs to the period in which the poll saw the
// change. A later scan, in a handler or in another thread, starts a new period.
GVDrvHnd::Reports GVDrvHnd::BeginReports() {
    const bool parallel = IsParallel();
    const MutexLock scanLock(m_mtxScanList);
    KeptRecords kept; // released after the device-list mutex
    const MutexLock listLock(m_mtxDevList);
    if (parallel) {
        kept.keep(m_ScanList);
    }
    Reports reports = CompareWithBus(parallel ? kept.records : m_ScanList, parallel);
    RecordReports(reports);
    return reports;
}

// Return the known readers that are not on the bus, and those on the bus that are not known. The known readers are those of the
// scan list at the beginning of the poll, whatever other threads do to the list meanwhile.
GVDrvHnd::Reports GVDrvHnd::CompareWithBus(std::vector<GVDevice*>& known, bool parallel) {
    Reports reports;
    for (GVDevice* device : known) {
        if (device != nullptr) {
            device->updateMark = 0;
        }
    }
    {
        const UsbDeviceList usbDevices(m_bLibUsbUsable);
        for (libusb_device* const usbDevice : usbDevices.devices()) {
            libusb_device_descriptor descriptor = {};
            libusb_get_device_descriptor(usbDevice, &descriptor);
            if (IsUsableGavoDevice(&descriptor)) {
                UpdateFromUsbDevice(usbDevice, known, parallel, reports.connects);
            }
        }
    }
    for (const GVDevice* device : known) {
        if (device != nullptr && device->updateMark != 1) {
            reports.disconnects.push_back({.devId = device->devId, .devHnd = device->devHnd});
        }
    }
    return reports;
}

// Update the scan list from one reader on the bus. Readers that are not known are added to arrived.
void GVDrvHnd::UpdateFromUsbDevice(libusb_device* usbDevice, std::vector<GVDevice*>& known, bool parallel,
                                   std::vector<Report>& arrived) {
    const auto isIt = [&](const GVDevice* device) {
        return device != nullptr && device->usbdev == usbDevice;
    };
    if (const auto index = m_ScanListSearch.find(known, isIt)) {
        GVDevice& device = *known[*index];
        device.updateMark = 1;
        RecordKnown(device.devId);
        log<Level::poll>("update", "known device in scan-list: devId=0x", std::hex, device.devId,
                         " usbDevPtr=", [&] { return UsbDeviceText(device.usbdev); });
        return;
    }
    unsigned int devId;
    {
        const MutexUnlock usb(m_mtxDevList, parallel);
        devId = ReadDeviceIdOfUsbDev(usbDevice);
    }
    if (devId == 0) {
        log<Level::poll>("update", "new device: reading devId failed");
        return;
    }
    const int index = indexOfDevId(known, devId);
    if (index < 0) {
        arrived.push_back({.devId = devId, .devHnd = 0});
        log<Level::poll>("update", "new device: devId=0x", std::hex, devId);
        return;
    }
    OwnedDevice reconnected(new GVDevice(NextDeviceHandle(), usbDevice));
    int code;
    {
        const MutexUnlock usb(m_mtxDevList, parallel);
        code = reconnected->IdentifyDevice();
    }
    if (code != 0) {
        reconnected.reset();
        log<Level::poll>("update", "reconnected device: devId=0x", std::hex, devId,
                         " Identify return-code=", code);
        return;
    }
    TakeBack(std::move(reconnected), known, static_cast<std::size_t>(index), parallel);
    log<Level::poll>("update", "reconnected device: devId=0x", std::hex, devId);
}

// Give a reader that has come back its old place in the scan list, unless the list has been cleared since the poll began, and
// in the device list.
void GVDrvHnd::TakeBack(OwnedDevice reconnected, std::vector<GVDevice*>& known, std::size_t index,
                        bool parallel) {
    GVDevice& newDev = *reconnected;
    const auto place = std::find(m_ScanList.begin(), m_ScanList.end(), known[index]);
    Replacement replacement;
    if (place == m_ScanList.end()) {
        newDev.owner = true;
        replacement = ReplaceListed(newDev);
        newDev.owner = false;
    } else {
        replacement = ReplaceScanned(newDev, static_cast<std::size_t>(place - m_ScanList.begin()));
    }
    if (parallel) {
        GVDevice::Release(std::exchange(known[index], newDev.Retain()));
    }
    if (IsInScanList(&newDev) || IsInDeviceList(&newDev)) {
        static_cast<void>(reconnected.release());
    }
    if (replacement.oldDev.get() != nullptr) {
        FinishReplacement(newDev, replacement, parallel);
    }
}
