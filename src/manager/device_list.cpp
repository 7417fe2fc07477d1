#include "manager/gvdrvhnd.h"

#include "device/gvdevice.h"

#include <algorithm>

namespace {

constexpr int firstHandle = 0x10000001;
constexpr int handleCount = 0x0FFFFFFF;

bool hasHandle(const std::vector<GVDevice*>& devices, int devHnd) {
    return std::any_of(devices.begin(), devices.end(),
                       [&](const GVDevice* device) { return device != nullptr && device->devHnd == devHnd; });
}

} // namespace

// After the counter has wrapped, the next handle may belong to a reader that is still open, or to one in the scan
// list, which gets its handle back when it is opened again.
int GVDrvHnd::NextDeviceHandle() {
    int devHnd;
    do {
        if (m_iHandleCounter >= handleCount) {
            m_iHandleCounter = 0;
        }
        devHnd = firstHandle + m_iHandleCounter++;
    } while (hasHandle(m_DeviceList, devHnd) || hasHandle(m_ScanList, devHnd));
    return devHnd;
}

void GVDrvHnd::ClearDeviceList() {
    const MutexLock lock(m_mtxDevList);
    for (GVDevice* device : m_DeviceList) {
        if (device != nullptr && (!device->owner || !IsInScanList(device))) {
            DestroyDevice(device);
        }
    }
    m_DeviceList.clear();
}

int GVDrvHnd::FindFirstOrNextDeviceHandle(int devHnd) {
    const MutexLock lock(m_mtxDevList);
    auto next = m_DeviceList.begin();
    if (devHnd > 0) {
        next = std::find_if(next, m_DeviceList.end(), [&](const GVDevice* device) {
            return device != nullptr && device->devHnd == devHnd;
        });
        if (next == m_DeviceList.end()) {
            return 0;
        }
        ++next;
    }
    next = std::find_if(next, m_DeviceList.end(), [](const GVDevice* device) { return device != nullptr; });
    return next == m_DeviceList.end() ? 0 : (*next)->devHnd;
}

GVDevice* GVDrvHnd::DL_DeviceOfUsbDev(const libusb_device* dev) {
    for (GVDevice* device : m_DeviceList) {
        if (device != nullptr && device->usbdev == dev) {
            return device;
        }
    }
    return nullptr;
}

// A hint is only a place to look first.
GVDevice* GVDrvHnd::DL_DeviceOfDevHnd(int devHnd) {
    std::uint32_t& hint = m_HandleHints[static_cast<unsigned int>(devHnd) % m_HandleHints.size()];
    if (hint < m_DeviceList.size()) {
        GVDevice* const device = m_DeviceList[hint];
        if (device != nullptr && device->devHnd == devHnd) {
            return device;
        }
    }
    return DL_Search(devHnd, hint);
}

GVDevice* GVDrvHnd::DL_Search(int devHnd, std::uint32_t& hint) {
    const auto found = std::find_if(m_DeviceList.begin(), m_DeviceList.end(), [&](const GVDevice* device) {
        return device != nullptr && device->devHnd == devHnd;
    });
    if (found == m_DeviceList.end()) {
        return nullptr;
    }
    hint = static_cast<std::uint32_t>(found - m_DeviceList.begin());
    return *found;
}

GVDevice* GVDrvHnd::UsableDevice(int devHnd) {
    GVDevice* device = DL_DeviceOfDevHnd(devHnd);
    while (device != nullptr && m_Changing != nullptr && IsChanging(*device)) {
        AwaitChange();
        device = DL_DeviceOfDevHnd(devHnd);
    }
    return device;
}

void GVDrvHnd::EraseFromDeviceList(const GVDevice& device) {
    const auto erased = std::find(m_DeviceList.begin(), m_DeviceList.end(), &device);
    const auto index = static_cast<std::size_t>(erased - m_DeviceList.begin());
    m_DeviceList.erase(erased);
    for (Position* position = m_Positions; position != nullptr; position = position->next) {
        if (position->index > index) {
            --position->index;
        }
    }
}

int GVDrvHnd::DL_HandleOfDeviceId(unsigned int devId) {
    if (devId == 0) {
        return 0;
    }
    for (const GVDevice* device : m_DeviceList) {
        if (device != nullptr && device->devId == devId) {
            return device->devHnd;
        }
    }
    return 0;
}

int GVDrvHnd::GetLastError(int devHnd) {
    const MutexLock lock(m_mtxDevList);
    const GVDevice* const device = DL_DeviceOfDevHnd(devHnd);
    return device == nullptr ? int{GVUSB_ERR_HANDLE_NOT_FOUND} : relaxed::load(device->lastError);
}

int GVDrvHnd::GetDeviceHnd(unsigned int devId) {
    const MutexLock lock(m_mtxDevList);
    const int devHnd = DL_HandleOfDeviceId(devId);
    return devHnd == 0 ? SetLastError(GVUSB_ERR_NOT_OPENED) : devHnd;
}
