#include "manager/gvdrvhnd.h"

#include "device/gvdevice.h"

#include <algorithm>

int GVDrvHnd::IsDevicePresent(int devHnd) {
    const MutexLock lock(m_mtxDevList);
    GVDevice* const device = DL_DeviceOfDevHnd(devHnd);
    if (device == nullptr) {
        return SetLastError(GVUSB_ERR_HANDLE_NOT_FOUND);
    }
    const bool present = device->IsPresent();
    SetLastError(GVUSB_OK);
    return present ? 1 : 0;
}

int GVDrvHnd::Transceive(int devHnd, const char* interfaceName, const unsigned char* data, unsigned int len,
                         unsigned char* buf, unsigned int size) {
    const MutexLock lock(m_mtxDevList);
    GVDevice* const device = DL_DeviceOfDevHnd(devHnd);
    if (device == nullptr) {
        return SetLastError(GVUSB_ERR_HANDLE_NOT_FOUND);
    }
    const int result = device->Transceive(interfaceName, data, len, buf, size);
    SetLastError(std::min(result, 0));
    return result;
}

int GVDrvHnd::Transmit(int devHnd, const char* interfaceName, const unsigned char* data, unsigned int len) {
    const MutexLock lock(m_mtxDevList);
    GVDevice* const device = DL_DeviceOfDevHnd(devHnd);
    if (device == nullptr) {
        return SetLastError(GVUSB_ERR_HANDLE_NOT_FOUND);
    }
    return SetLastError(device->Transmit(interfaceName, data, len));
}

// Unlike Transceive, leaves the count of received bytes as the last error.
int GVDrvHnd::Receive(int devHnd, const char* interfaceName, unsigned char* buf, unsigned int size) {
    const MutexLock lock(m_mtxDevList);
    GVDevice* const device = DL_DeviceOfDevHnd(devHnd);
    if (device == nullptr) {
        return SetLastError(GVUSB_ERR_HANDLE_NOT_FOUND);
    }
    return SetLastError(device->Receive(interfaceName, buf, size));
}
