#include "manager/gvdrvhnd.h"

#include "api/log.h"
#include "base/sequential_search.h"
#include "base/usb_owners.h"
#include "device/gvdevice.h"

#include <memory>

namespace {

// Every poll finds the readers in the same order.
constinit SequentialSearch connectSearch;
constinit SequentialSearch disconnectSearch;

// Return whether the device ID was not reported since the last scan.
bool addReported(std::vector<unsigned int>& reported, unsigned int devId, SequentialSearch& search) {
    if (search.find(reported, [&](unsigned int id) { return id == devId; })) {
        return false;
    }
    GVDrvHnd::ToDevIds(&reported, devId);
    return true;
}

// Keep only the reports that are due, each device ID once.
template <class Report>
void keepUnreported(std::vector<Report>& reports, std::vector<unsigned int>& reported,
                    SequentialSearch& search) {
    auto kept = reports.begin();
    for (const Report& report : reports) {
        if (addReported(reported, report.devId, search)) {
            *kept++ = report;
        }
    }
    reports.erase(kept, reports.end());
}

} // namespace

// Poll once: compare the bus with the scan list, replace the records of readers that came back, and report those that
// came or went.
void GVDrvHnd::UpdateDevices() {
    const Reports reports = BeginReports();

    // No list mutex is held, so that handlers can call the library.
    for (const auto& [devId, devHnd] : reports.disconnects) {
        if (GVLOG_Level() > 0) {
            logLine("update", "MESSAGE \"disconnect\": devId=0x", std::hex, devId, " devHnd=0x", devHnd);
        }
        ExecEventInitListCallbacks(GVUSB_EVENT_DISCONNECT, devHnd, devId);
    }
    for (const auto& [devId, devHnd] : reports.connects) {
        if (GVLOG_Level() > 0) {
            logLine("update", "MESSAGE \"connect\": devId=0x", std::hex, devId);
        }
        ExecEventInitListCallbacks(GVUSB_EVENT_CONNECT, devHnd, devId);
    }
}

// Records the reports before the mutexes are released, because a report belongs to the period in which the poll saw the
// change. A later scan, in a handler or in another thread, starts a new period. Memory is reserved first: if it runs out,
// none of the reports is recorded.
GVDrvHnd::Reports GVDrvHnd::BeginReports() {
    const MutexLock scanLock(m_mtxScanList);
    const MutexLock listLock(m_mtxDevList);
    Reports reports = CompareWithBus();
    m_ReportedDisconnects.reserve(m_ReportedDisconnects.size() + reports.disconnects.size());
    m_ReportedConnects.reserve(m_ReportedConnects.size() + reports.connects.size());
    keepUnreported(reports.disconnects, m_ReportedDisconnects, disconnectSearch);
    keepUnreported(reports.connects, m_ReportedConnects, connectSearch);
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
        addReported(m_ReportedConnects, known->devId, connectSearch);
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
        arrived.push_back({.devId = devId, .devHnd = 0});
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
