#include "manager/gvdrvhnd.h"

#include "base/log.h"
#include "device/gvdevice.h"
#include "manager/changes.h"
#include "manager/kept_records.h"
#include "manager/opening.h"

#include <algorithm>

namespace {

// The lists may have changed. The caller searches for the reader again.
constexpr int searchAgain = 1;

void closeDevice(GVDevice* device) {
    const MutexLock lock(device->mutex);
    device->CloseDev();
}

} // namespace

bool isOpen(const GVDevice& device) GVUSB_NO_THREAD_SAFETY_ANALYSIS {
    return device.usbdev_hnd != nullptr;
}

int openOrLeaveClosed(GVDevice& device) {
    // Closes the reader on failure, also if memory runs out, unless it was open before.
    Owner<GVDevice, closeDevice> opening(isOpen(device) ? nullptr : &device);
    const int code = device.OpenDevice();
    if (code == 0) {
        static_cast<void>(opening.release());
    }
    return code;
}

// Whether a scan or a poll has found the reader again since the call began to open it, and has given its place to another
// record.
bool GVDrvHnd::IsReplaced(const GVDevice& device) {
    if (IsInScanList(&device) || IsInDeviceList(&device)) {
        return false;
    }
    return SL_IndexOfDevId(device.devId) >= 0 || DL_DeviceOfDevHnd(device.devHnd) != nullptr;
}

// Open an entry of the scan list and put it into the device list. Return 0, the code of the failure or searchAgain.
int GVDrvHnd::OpenScanned(GVDevice& device, bool parallel) {
    // Other threads that are opening readers need room in the list, too.
    m_DeviceList.reserve(m_DeviceList.size() + CountChanges() + 1);
    const OwnedDevice used(device.Retain());
    Change change(*this, device);
    int code;
    {
        const MutexUnlock usb(m_mtxDevList, parallel);
        code = openOrLeaveClosed(device);
    }
    if (code != 0) {
        log<Level::manager>("open device", "devId=0x", std::hex, device.devId, ": return-code=", std::dec,
                            code);
        return code;
    }
    if (IsReplaced(device)) {
        const MutexUnlock usb(m_mtxDevList, parallel);
        closeDevice(&device);
        return searchAgain;
    }
    AddToDeviceList(device);
    log<Level::manager>("open device", "devId=0x", std::hex, device.devId, ": ok");
    return GVUSB_OK;
}

// Open one entry. Return its handle, the code of the failure or searchAgain.
int GVDrvHnd::OpenEntry(GVDevice& device, bool parallel) {
    if (const int devHnd = DL_HandleOfDeviceId(device.devId); devHnd != 0) {
        return devHnd;
    }
    if (IsReaderChanging(device)) {
        AwaitChange();
        return searchAgain;
    }
    const int devHnd = device.devHnd;
    if (const int code = OpenScanned(device, parallel); code != 0) {
        return code == searchAgain ? code : SetLastError(code);
    }
    logDeviceList();
    SetLastError(GVUSB_OK);
    return devHnd;
}

int GVDrvHnd::OpenAllDevices() {
    const bool parallel = IsParallel();
    const MutexLock lock(m_mtxDevList);
    return OpenEveryEntry(parallel);
}

// Open the readers that are in the scan list now, whatever other threads do to the list meanwhile.
int GVDrvHnd::OpenEveryEntry(bool parallel) {
    KeptRecords kept;
    if (parallel) {
        kept.keep(m_ScanList);
    }
    std::vector<GVDevice*>& records = parallel ? kept.records : m_ScanList;
    int lastFailure = GVUSB_OK;
    for (std::size_t i = 0; i < records.size();) {
        GVDevice* const device = records[i];
        if (device == nullptr || DL_HandleOfDeviceId(device->devId) != 0) {
            ++i;
        } else if (IsReaderChanging(*device)) {
            AwaitChange();
        } else if (IsReplaced(*device)) {
            GVDevice* const successor = ScannedDevice(SL_IndexOfDevId(device->devId));
            records[i] = successor == nullptr ? nullptr : successor->Retain();
            GVDevice::Release(device);
        } else if (const int code = OpenScanned(*device, parallel); code != searchAgain) {
            lastFailure = code != 0 ? code : lastFailure;
            ++i;
        }
    }
    logDeviceList();
    return SetLastError(lastFailure);
}

int GVDrvHnd::OpenDevice(int index) {
    const bool parallel = IsParallel();
    const MutexLock lock(m_mtxDevList);
    return OpenEntryAt(index, parallel);
}

int GVDrvHnd::OpenEntryAt(int index, bool parallel) {
    int result = searchAgain;
    while (result == searchAgain) {
        if (index < 0 || static_cast<std::size_t>(index) >= m_ScanList.size()) {
            return SetLastError(GVUSB_ERR_INDEX_OUT_OF_RANGE);
        }
        GVDevice* const device = ScannedDevice(index);
        if (device == nullptr) {
            return SetLastError(GVUSB_ERR_UNKNOWN_ERROR_CODE);
        }
        result = OpenEntry(*device, parallel);
    }
    return result;
}

int GVDrvHnd::OpenDevice(unsigned int devId) {
    const bool parallel = IsParallel();
    const MutexLock lock(m_mtxDevList);
    int result = searchAgain;
    while (result == searchAgain) {
        const auto found = std::find_if(m_ScanList.begin(), m_ScanList.end(), [&](const GVDevice* device) {
            return device != nullptr && device->devId == devId;
        });
        if (found == m_ScanList.end()) {
            log<Level::manager>("open device", "devId=0x", std::hex, devId, " not scanned");
            return SetLastError(GVUSB_ERR_NOT_SCANNED);
        }
        result = OpenEntry(**found, parallel);
    }
    return result;
}

// The handle is unknown from the beginning on. Calls that are using the reader end first; parallel ones are ended.
int GVDrvHnd::CloseDevice(int devHnd) {
    const bool parallel = IsParallel();
    const MutexLock lock(m_mtxDevList);
    GVDevice* const device = UsableDevice(devHnd);
    if (device == nullptr) {
        log<Level::manager>("close device", "devHnd=0x", std::hex, devHnd, " not in device list");
        return SetLastError(GVUSB_ERR_HANDLE_NOT_FOUND);
    }
    EraseFromDeviceList(*device);
    device->BeginClosing();
    const unsigned int devId = device->devId;
    const bool stillScanned = IsInScanList(device);
    OwnedDevice used(stillScanned ? device->Retain() : device);
    device->owner = true;
    Change change(*this, *device);
    {
        const MutexUnlock usb(m_mtxDevList, parallel);
        device->CancelTransfer();
        device->CloseDevice();
    }
    change.end();
    SetLastError(GVUSB_OK);
    used.reset();
    log<Level::manager>("close device", "devHnd=0x", std::hex, devHnd, " devId=0x", devId,
                        stillScanned ? ":done - device still in scan list"
                                     : ":done - device object destroyed");
    logDeviceList();
    return GVUSB_OK;
}
