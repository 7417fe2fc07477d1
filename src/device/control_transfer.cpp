#include "device/exchange.h"

int GVDevice::Transmit_Ctrl(const unsigned char* data, unsigned int len) {
    SynchronousTransfer usb{usbdev_hnd, timeout};
    return TransmitControl(usb, data, len);
}

int GVDevice::Receive_Ctrl(unsigned char* buf, unsigned int size) {
    SynchronousTransfer usb{usbdev_hnd, timeout};
    return ReceiveControl(usb, buf, size);
}

int GVDevice::Transceive_Ctrl(const unsigned char* data, unsigned int len, unsigned char* buf,
                              unsigned int size) {
    SynchronousTransfer usb{usbdev_hnd, timeout};
    return TransceiveControl(usb, data, len, buf, size);
}
