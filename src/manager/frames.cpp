#include "manager/on_device.h"

int GVDrvHnd::IsDevicePresent(int devHnd) {
    return OnDevice(devHnd, [this](GVDevice& device) {
        const bool present = device.IsPresent();
        SetLastError(GVUSB_OK);
        return present ? 1 : 0;
    });
}

int GVDrvHnd::Transceive(int devHnd, const char* interfaceName, const unsigned char* data, unsigned int len,
                         unsigned char* buf, unsigned int size) {
    return IsParallel() ? TransceiveEndable(devHnd, interfaceName, data, len, buf, size)
                        : TransceiveAlone(devHnd, interfaceName, data, len, buf, size);
}

int GVDrvHnd::TransceiveAlone(int devHnd, const char* interfaceName, const unsigned char* data,
                              unsigned int len, unsigned char* buf, unsigned int size) {
    return OnDeviceAlone(devHnd, [&](GVDevice& device) {
        return FinishTransceive(device.Transceive(interfaceName, data, len, buf, size));
    });
}

int GVDrvHnd::TransceiveEndable(int devHnd, const char* interfaceName, const unsigned char* data,
                                unsigned int len, unsigned char* buf, unsigned int size) {
    return OnDeviceEndable(devHnd, [&](GVDevice& device, EndCount ends) {
        return FinishTransceive(device.TransceiveEndable(ends, interfaceName, data, len, buf, size));
    });
}

int GVDrvHnd::Transmit(int devHnd, const char* interfaceName, const unsigned char* data, unsigned int len) {
    if (IsParallel()) {
        return OnDeviceEndable(devHnd, [&](GVDevice& device, EndCount ends) {
            return SetLastError(device.TransmitEndable(ends, interfaceName, data, len));
        });
    }
    return OnDeviceAlone(
        devHnd, [&](GVDevice& device) { return SetLastError(device.Transmit(interfaceName, data, len)); });
}

// Unlike Transceive, leaves the count of received bytes as the last error.
int GVDrvHnd::Receive(int devHnd, const char* interfaceName, unsigned char* buf, unsigned int size) {
    if (IsParallel()) {
        return OnDeviceEndable(devHnd, [&](GVDevice& device, EndCount ends) {
            return SetLastError(device.ReceiveEndable(ends, interfaceName, buf, size));
        });
    }
    return OnDeviceAlone(
        devHnd, [&](GVDevice& device) { return SetLastError(device.Receive(interfaceName, buf, size)); });
}
