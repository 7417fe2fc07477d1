#include "manager/gvdrvhnd.h"

#include "api/log.h"
#include "base/sequential_search.h"
#include "base/usb_owners.h"
#include "device/gvdevice.h"

#include <memory>

namespace {

struct VanishedReader {
    unsigned int devId;
    int devHnd;
};

// A poll meets the readers in the order in which the one before reported them.
constinit SequentialSearch reportedSearch;

} // namespace

// One poll: compares the bus with the scan list, puts readers that came back in their old place and reports
// those that came or went.
void GVDrvHnd::UpdateDevices() {
    std::vector<unsigned int> arrived;
    std::vector<VanishedReader> vanished;
    {
        const MutexLock scanLock(m_mtxScanList);
        const MutexLock listLock(m_mtxDevList);
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
                    UpdateFromUsbDevice(usbDevice, arrived);
                }
            }
        }
        for (const GVDevice* device : m_ScanList) {
            if (device != nullptr && device->updateMark != 1) {
                vanished.push_back({.devId = device->devId, .devHnd = device->devHnd});
            }
        }
    }

    // Handlers run without the list mutexes, so that they may call the library.
    for (const auto& [devId, devHnd] : vanished) {
        if (!WasReported(m_ReportedDisconnects, devId)) {
            if (GVLOG_Level() > 0) {
                logLine("update", "MESSAGE \"disconnect\": devId=0x", std::hex, devId, " devHnd=0x", devHnd);
            }
            ExecEventInitListCallbacks(GVUSB_EVENT_DISCONNECT, devHnd, devId);
            SetReported(m_ReportedDisconnects, devId);
        }
    }
    for (const unsigned int devId : arrived) {
        if (!WasReported(m_ReportedConnects, devId)) {
            if (GVLOG_Level() > 0) {
                logLine("update", "MESSAGE \"connect\": devId=0x", std::hex, devId);
            }
            ExecEventInitListCallbacks(GVUSB_EVENT_CONNECT, 0, devId);
            SetReported(m_ReportedConnects, devId);
        }
    }
}

// What one usable device on the bus means for the scan list; device IDs that are not in it are added to
// arrived.
void GVDrvHnd::UpdateFromUsbDevice(libusb_device* usbDevice, std::vector<unsigned int>& arrived) {
    if (GVDevice* const known = SL_DeviceOfUsbDev(usbDevice)) {
        known->updateMark = 1;
        SetReported(m_ReportedConnects, known->devId);
        if (GVLOG_Level() > 2) {
            logLine("update", "known device in scan-list: devId=0x", std::hex, known->devId,
                    " usbDevPtr=", known->GetUsbDevPtr());
        }
        return;
    }
    const unsigned int devId = ReadDeviceIdOfUsbDev(usbDevice);
    if (devId == 0) {
        if (GVLOG_Level() > 2) {
            logLine("update", "new device: reading devId failed");
        }
        return;
    }
    const int index = SL_IndexOfDevId(devId);
    if (index < 0) {
        arrived.push_back(devId);
        if (GVLOG_Level() > 2) {
            logLine("update", "new device: devId=0x", std::hex, devId);
        }
        return;
    }
    auto reconnected = std::make_unique<GVDevice>(NextDeviceHandle(), usbDevice);
    if (const int code = reconnected->IdentifyDevice(); code != 0) {
        reconnected.reset();
        if (GVLOG_Level() > 2) {
            logLine("update", "reconnected device: devId=0x", std::hex, devId,
                    " Identify return-code=", code);
        }
        return;
    }
    SL_ReplaceDevice(reconnected.release(), index);
    if (GVLOG_Level() > 2) {
        logLine("update", "reconnected device: devId=0x", std::hex, devId);
    }
}

bool GVDrvHnd::WasReported(std::vector<unsigned int>& ids, unsigned int id) {
    const MutexLock lock(m_mtxReported);
    return IsInDevIds(&ids, id);
}

void GVDrvHnd::SetReported(std::vector<unsigned int>& ids, unsigned int id) {
    const MutexLock lock(m_mtxReported);
    const auto isIt = [&](unsigned int reported) { return reported == id; };
    if (!reportedSearch.find(ids, isIt)) {
        ToDevIds(&ids, id);
    }
}

void GVDrvHnd::ForgetReported() {
    const MutexLock lock(m_mtxReported);
    m_ReportedConnects.clear();
    m_ReportedDisconnects.clear();
}
