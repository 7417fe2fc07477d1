#include "manager/gvdrvhnd.h"

#include "base/log.h"
#include "base/usb_owners.h"
#include "device/gvdevice.h"

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
    const MutexLock scanLock(m_mtxScanList);
    const MutexLock listLock(m_mtxDevList);
    Reports reports = CompareWithBus();
    RecordReports(reports);
    return reports;
}

// Return the readers that are in the scan list but not on the bus, and those on the bus but not in the list.
GVDrvHnd::Reports GVDrvHnd::CompareWithBus() {
    Reports reports;
    for (GVDevice* device : m_ScanList) {
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
                UpdateFromUsbDevice(usbDevice, reports.connects);
            }
        }
    }
    for (const GVDevice* device : m_ScanList) {
        if (device != nullptr && device->updateMark != 1) {
            reports.disconnects.push_back({.devId = device->devId, .devHnd = device->devHnd});
        }
    }
    return reports;
}

// Update the scan list from one reader on the bus. Readers that are not in the list are added to arrived.
void GVDrvHnd::UpdateFromUsbDevice(libusb_device* usbDevice, std::vector<Report>& arrived) {
    if (GVDevice* const known = SL_DeviceOfUsbDev(usbDevice)) {
        known->updateMark = 1;
        RecordKnown(known->devId);
        log<Level::poll>("update", "known device in scan-list: devId=0x", std::hex, known->devId,
                         " usbDevPtr=", [known] { return known->GetUsbDevPtr(); });
        return;
    }
    const unsigned int devId = ReadDeviceIdOfUsbDev(usbDevice);
    if (devId == 0) {
        log<Level::poll>("update", "new device: reading devId failed");
        return;
    }
    const int index = SL_IndexOfDevId(devId);
    if (index < 0) {
        arrived.push_back({.devId = devId, .devHnd = 0});
        log<Level::poll>("update", "new device: devId=0x", std::hex, devId);
        return;
    }
    OwnedDevice reconnected(new GVDevice(NextDeviceHandle(), usbDevice));
    if (const int code = reconnected->IdentifyDevice(); code != 0) {
        reconnected.reset();
        log<Level::poll>("update", "reconnected device: devId=0x", std::hex, devId,
                         " Identify return-code=", code);
        return;
    }
    SL_ReplaceDevice(reconnected.release(), index);
    log<Level::poll>("update", "reconnected device: devId=0x", std::hex, devId);
}
