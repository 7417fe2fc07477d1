#include "device/exchange.h"

int GVDevice::Transmit_Bulk(const unsigned char* data, unsigned int len) {
    SynchronousTransfer usb{usbdev_hnd, timeout};
    return TransmitBulk(usb, data, len);
}

int GVDevice::Receive_Bulk(unsigned char* buf, unsigned int size) {
    SynchronousTransfer usb{usbdev_hnd, timeout};
    return ReceiveBulk(usb, buf, size);
}

int GVDevice::Transceive_Bulk(const unsigned char* data, unsigned int len, unsigned char* buf,
                              unsigned int size) {
    SynchronousTransfer usb{usbdev_hnd, timeout};
    return TransceiveBulk(usb, data, len, buf, size);
}

int GVDevice::BulkTransmitFailed(const char* tag, int usbResult) {
    log<Level::reader>(tag, "returned ", usbResult);
    // Receiving does not clear the halts, so that the next receive still gets the answer of a slow reader.
    if (usbResult == LIBUSB_ERROR_TIMEOUT) {
        ResetBulkEndPoints();
    }
    return transferCode(usbResult, GVUSB_ERR_BULK_TRANSFER);
}
