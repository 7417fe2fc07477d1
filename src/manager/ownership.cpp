// Which lists have a record.
//
// A record can be in both lists, and calls may use it while they wait for USB. The lists together hold one reference to it,
// and so does each of these calls. The last one to release its reference destroys the record. A record that leaves both lists
// is forgotten by both at once, so neither list ever holds a pointer to a destroyed record. The owner flag says which list is
// the last one that the record leaves.
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

void GVDrvHnd::TakeFromLists(GVDevice* device) {
    std::replace(m_ScanList.begin(), m_ScanList.end(), device, static_cast<GVDevice*>(nullptr));
    std::replace(m_DeviceList.begin(), m_DeviceList.end(), device, static_cast<GVDevice*>(nullptr));
}

void GVDrvHnd::DestroyDevice(GVDevice* device) {
    TakeFromLists(device);
    GVDevice::Release(device);
}

// Memory must be reserved.
void GVDrvHnd::AddToScanList(GVDevice& device) {
    if (!IsInDeviceList(&device)) {
        device.owner = true;
        device.Retain();
    }
    m_ScanList.push_back(&device);
}

// Memory must be reserved.
void GVDrvHnd::AddToDeviceList(GVDevice& device) {
    // A reader with the device ID 0 cannot be looked up by its ID, so it may be in the list already.
    if (!IsInDeviceList(&device)) {
        if (!IsInScanList(&device)) {
            device.Retain();
        }
        m_DeviceList.push_back(&device);
    }
    device.owner = false;
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
