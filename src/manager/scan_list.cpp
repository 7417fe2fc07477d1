#include "manager/gvdrvhnd.h"

#include "base/log.h"
#include "device/gvdevice.h"
#include "manager/list_search.h"

int GVDrvHnd::GetScanListPara(int index, const char* key, char* value) {
    const bool parallel = IsParallel();
    ReleasableLock lock(m_mtxDevList);
    GVDevice* device = ScannedDevice(index);
    while (device != nullptr && IsChanging(*device)) {
        AwaitChange();
        device = ScannedDevice(index);
    }
    if (device == nullptr) {
        return SetLastError(GVUSB_NO_SCAN_LIST_ENTRY);
    }
    const OwnedDevice used(device->Retain());
    lock.releaseIf(parallel);
    return SetLastError(used->GetDevicePara(key, value));
}

GVDevice* GVDrvHnd::ScannedDevice(int index) {
    const auto position = static_cast<std::size_t>(index);
    return index < 0 || position >= m_ScanList.size() ? nullptr : m_ScanList[position];
}

int GVDrvHnd::GetScanListSize() {
    const MutexLock lock(m_mtxDevList);
    return CountScanList();
}

int GVDrvHnd::CountScanList() {
    SetLastError(GVUSB_OK);
    const int size = static_cast<int>(m_ScanList.size());
    log<Level::manager>("scan-list", "size=", size);
    return size;
}

void GVDrvHnd::ClearScanList() {
    const MutexLock lock(m_mtxDevList);
    EmptyScanList();
}

void GVDrvHnd::EmptyScanList() {
    for (std::size_t i = 0; i < m_ScanList.size(); ++i) {
        DropFromScanList(i);
    }
    m_ScanList.clear();
}

GVDevice* GVDrvHnd::SL_DeviceOfUsbDev(const libusb_device* dev) {
    const auto isIt = [&](const GVDevice* device) { return device != nullptr && device->usbdev == dev; };
    const auto index = m_ScanListSearch.find(m_ScanList, isIt);
    return index ? m_ScanList[*index] : nullptr;
}

int GVDrvHnd::SL_IndexOfDevId(unsigned int devId) {
    return indexOfDevId(m_ScanList, devId);
}
