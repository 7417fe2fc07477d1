#include "manager/gvdrvhnd.h"

#include "base/log.h"
#include "device/gvdevice.h"
#include "manager/opening.h"

#include <algorithm>

namespace {

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

// Open an entry of the scan list and put it into the device list.
int GVDrvHnd::OpenScanned(GVDevice& device) {
    m_DeviceList.reserve(m_DeviceList.size() + 1);
    if (const int code = openOrLeaveClosed(device); code != 0) {
        log<Level::manager>("open device", "devId=0x", std::hex, device.devId, ": return-code=", std::dec,
                            code);
        return code;
    }
    // A reader with the device ID 0 cannot be looked up by its ID, so it may be in the list already.
    if (!IsInDeviceList(&device)) {
        m_DeviceList.push_back(&device);
    }
    device.owner = false;
    log<Level::manager>("open device", "devId=0x", std::hex, device.devId, ": ok");
    return GVUSB_OK;
}

// Open one entry. Return its handle or the code of the failure.
int GVDrvHnd::OpenEntry(GVDevice& device) {
    if (const int devHnd = DL_HandleOfDeviceId(device.devId); devHnd != 0) {
        return devHnd;
    }
    if (const int code = OpenScanned(device); code != 0) {
        return SetLastError(code);
    }
    logDeviceList();
    SetLastError(GVUSB_OK);
    return device.devHnd;
}

int GVDrvHnd::OpenAllDevices() {
    const MutexLock lock(m_mtxDevList);
    return OpenEveryEntry();
}

int GVDrvHnd::OpenEveryEntry() {
    int lastFailure = GVUSB_OK;
    for (GVDevice* device : m_ScanList) {
        if (device == nullptr || DL_HandleOfDeviceId(device->devId) != 0) {
            continue;
        }
        if (const int code = OpenScanned(*device); code != 0) {
            lastFailure = code;
        }
    }
    logDeviceList();
    return SetLastError(lastFailure);
}

int GVDrvHnd::OpenDevice(int index) {
    const MutexLock lock(m_mtxDevList);
    return OpenEntryAt(index);
}

int GVDrvHnd::OpenEntryAt(int index) {
    if (index < 0 || static_cast<std::size_t>(index) >= m_ScanList.size()) {
        return SetLastError(GVUSB_ERR_INDEX_OUT_OF_RANGE);
    }
    GVDevice* const device = m_ScanList[static_cast<std::size_t>(index)];
    if (device == nullptr) {
        return SetLastError(GVUSB_ERR_UNKNOWN_ERROR_CODE);
    }
    return OpenEntry(*device);
}

int GVDrvHnd::OpenDevice(unsigned int devId) {
    const MutexLock lock(m_mtxDevList);
    const auto found = std::find_if(m_ScanList.begin(), m_ScanList.end(), [&](const GVDevice* device) {
        return device != nullptr && device->devId == devId;
    });
    if (found == m_ScanList.end()) {
        log<Level::manager>("open device", "devId=0x", std::hex, devId, " not scanned");
        return SetLastError(GVUSB_ERR_NOT_SCANNED);
    }
    return OpenEntry(**found);
}

int GVDrvHnd::CloseDevice(int devHnd) {
    const MutexLock lock(m_mtxDevList);
    const auto found = std::find_if(m_DeviceList.begin(), m_DeviceList.end(), [&](const GVDevice* device) {
        return device != nullptr && device->devHnd == devHnd;
    });
    if (found == m_DeviceList.end()) {
        log<Level::manager>("close device", "devHnd=0x", std::hex, devHnd, " not in device list");
        return SetLastError(GVUSB_ERR_HANDLE_NOT_FOUND);
    }
    GVDevice* const device = *found;
    m_DeviceList.erase(found);
    const unsigned int devId = device->devId;
    const bool stillScanned = IsInScanList(device);
    OwnedDevice unlisted(stillScanned ? nullptr : device);
    device->owner = true;
    device->CloseDevice();
    SetLastError(GVUSB_OK);
    unlisted.reset();
    log<Level::manager>("close device", "devHnd=0x", std::hex, devHnd, " devId=0x", devId,
                        stillScanned ? ":done - device still in scan list"
                                     : ":done - device object destroyed");
    logDeviceList();
    return GVUSB_OK;
}
