// Which list destroys a record.
//
// A record can be in both lists. It is destroyed when it leaves the last of them. Both lists forget it first, so
// neither list ever holds a pointer to a destroyed record. The owner flag says which list destroys it.
#include "manager/gvdrvhnd.h"

#include "device/gvdevice.h"

#include <algorithm>
#include <utility>

bool GVDrvHnd::IsInScanList(const GVDevice* device) {
    return std::find(m_ScanList.begin(), m_ScanList.end(), device) != m_ScanList.end();
}

bool GVDrvHnd::IsInDeviceList(const GVDevice* device) {
    return std::find(m_DeviceList.begin(), m_DeviceList.end(), device) != m_DeviceList.end();
}

void GVDrvHnd::DestroyDevice(GVDevice* device) {
    std::replace(m_ScanList.begin(), m_ScanList.end(), device, static_cast<GVDevice*>(nullptr));
    std::replace(m_DeviceList.begin(), m_DeviceList.end(), device, static_cast<GVDevice*>(nullptr));
    delete device;
}

// Applications can still use a record by its handle if it is in the device list, which then owns it.
void GVDrvHnd::DropFromScanList(std::size_t index) {
    GVDevice* const device = std::exchange(m_ScanList[index], nullptr);
    if (device == nullptr) {
        return;
    }
    if (IsInDeviceList(device)) {
        device->owner = false;
    } else {
        DestroyDevice(device);
    }
}
