#include "manager/on_device.h"

#include <algorithm>

int GVDrvHnd::IsDevicePresent(int devHnd) {
    return OnDevice(devHnd, [this](GVDevice& device) {
        const bool present = device.IsPresent();
        SetLastError(GVUSB_OK);
        return present ? 1 : 0;
    });
}

int GVDrvHnd::Transceive(int devHnd, const char* interfaceName, const unsigned char* data, unsigned int len,
                         unsigned char* buf, unsigned int size) {
    return OnDevice(devHnd, [&](GVDevice& device) {
        const int result = device.Transceive(interfaceName, data, len, buf, size);
        SetLastError(std::min(result, 0));
        return result;
    });
}

int GVDrvHnd::Transmit(int devHnd, const char* interfaceName, const unsigned char* data, unsigned int len) {
    return OnDevice(
        devHnd, [&](GVDevice& device) { return SetLastError(device.Transmit(interfaceName, data, len)); });
}

// Unlike Transceive, leaves the count of received bytes as the last error.
int GVDrvHnd::Receive(int devHnd, const char* interfaceName, unsigned char* buf, unsigned int size) {
    return OnDevice(devHnd,
                    [&](GVDevice& device) { return SetLastError(device.Receive(interfaceName, buf, size)); });
}
