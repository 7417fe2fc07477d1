#include "manager/gvdrvhnd.h"

#include "base/log.h"
#include "device/gvdevice.h"

int GVDrvHnd::GetScanListPara(int index, const char* key, char* value) {
    const MutexLock lock(m_mtxDevList);
    GVDevice* device = nullptr;
    if (index >= 0 && static_cast<std::size_t>(index) < m_ScanList.size()) {
        device = m_ScanList[static_cast<std::size_t>(index)];
    }
    return SetLastError(device == nullptr ? int{GVUSB_NO_SCAN_LIST_ENTRY}
                                          : device->GetDevicePara(key, value));
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
    if (devId == 0) {
        return -1;
    }
    for (std::size_t i = 0; i < m_ScanList.size(); ++i) {
        if (m_ScanList[i] != nullptr && m_ScanList[i]->devId == devId) {
            return static_cast<int>(i);
        }
    }
    return -1;
}
