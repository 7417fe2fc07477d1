#include "device/gvdevice.h"

#include "base/log.h"
#include "device/known_protocol.h"
#include "gvusb.h"

int GVDevice::Transmit(const char* interfaceName, const unsigned char* data, unsigned int len) {
    const bool knownProtocol = isKnownProtocol(interfaceName);
    const MutexLock lock(mutex);
    if (const int code = BeginTransfer("transmit", knownProtocol); code < 0) {
        return code;
    }
    return EndTransfer("transmit", TransmitSynchronously(data, len));
}

int GVDevice::Receive(const char* interfaceName, unsigned char* buf, unsigned int size) {
    const bool knownProtocol = isKnownProtocol(interfaceName);
    const MutexLock lock(mutex);
    if (const int code = BeginTransfer("receive", knownProtocol); code < 0) {
        return code;
    }
    return EndTransfer("receive", ReceiveSynchronously(buf, size));
}

int GVDevice::Transceive(const char* interfaceName, const unsigned char* data, unsigned int len,
                         unsigned char* buf, unsigned int size) {
    const bool knownProtocol = isKnownProtocol(interfaceName);
    const MutexLock lock(mutex);
    if (const int code = BeginTransfer("transceive", knownProtocol); code < 0) {
        return code;
    }
    return EndTransfer("transceive", transferMode == TransferMode::bulk
                                         ? Transceive_Bulk(data, len, buf, size)
                                         : Transceive_Ctrl(data, len, buf, size));
}

int GVDevice::TransmitSynchronously(const unsigned char* data, unsigned int len) {
    return transferMode == TransferMode::bulk ? Transmit_Bulk(data, len) : Transmit_Ctrl(data, len);
}

int GVDevice::ReceiveSynchronously(unsigned char* buf, unsigned int size) {
    return transferMode == TransferMode::bulk ? Receive_Bulk(buf, size) : Receive_Ctrl(buf, size);
}

// For endable calls.
int GVDevice::TransceiveSynchronously(const unsigned char* data, unsigned int len, unsigned char* buf,
                                      unsigned int size) {
    return transferMode == TransferMode::bulk ? Transceive_Bulk(data, len, buf, size)
                                              : Transceive_Ctrl(data, len, buf, size);
}

// Check that the reader is open and the protocol is known. In the first transfer after opening, also find the
// endpoints and claim the interface.
int GVDevice::BeginTransfer(const char* tag, bool knownProtocol) {
    if (usbdev_hnd == nullptr) {
        return RefuseClosed(tag);
    }
    if (!knownProtocol) {
        return SetLastError(GVUSB_ERR_UNKNOWN_INTERFACE);
    }
    if (transferMode == TransferMode::unknown) {
        if (const int code = GetBulkEndPoints(); code < 0) {
            return SetLastError(code);
        }
    }
    return GVUSB_OK;
}

int GVDevice::RefuseClosed(const char* tag) {
    log<Level::reader>(tag, "device not open error");
    return SetLastError(GVUSB_ERR_NOT_OPENED);
}

int GVDevice::EndTransfer(const char* tag, int result) {
    if (result < 0) {
        log<Level::reader>(tag, "returned ", result);
        return SetLastError(result);
    }
    SetLastError(GVUSB_OK);
    return result;
}
