#include "device/gvdevice.h"

#include "base/log.h"
#include "device/transfer_codes.h"
#include "gvusb.h"

#include <climits>
#include <cstdint>
#include <cstring>

namespace {

// libusb takes the length as an int.
int bulkTransfer(libusb_device_handle* handle, std::uint8_t endpoint, unsigned char* data,
                 unsigned int length, int& transferred, unsigned int timeout) {
    if (length > INT_MAX) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    return libusb_bulk_transfer(handle, endpoint, data, static_cast<int>(length), &transferred, timeout);
}

} // namespace

int GVDevice::Transmit_Bulk(const unsigned char* data, unsigned int len) {
    constexpr const char* tag = "bulkTransmit";
    if (isLogged(Level::reader)) {
        LogSent(tag, data, len);
    }
    int transferred = 0;
    const int rc =
        bulkTransfer(usbdev_hnd, addrOut, const_cast<unsigned char*>(data), len, transferred, timeout);
    if (rc >= 0) {
        return GVUSB_OK;
    }
    log<Level::reader>(tag, "returned ", rc);
    // Receiving does not clear the halts, so that the next receive still gets the answer of a slow reader.
    if (rc == LIBUSB_ERROR_TIMEOUT) {
        ResetBulkEndPoints();
    }
    return transferCode(rc, GVUSB_ERR_BULK_TRANSFER);
}

int GVDevice::Receive_Bulk(unsigned char* buf, unsigned int size) {
    std::memset(buf, 0, size);
    int transferred = 0;
    const int rc = bulkTransfer(usbdev_hnd, addrIn, buf, size, transferred, timeout);
    if (rc < 0) {
        log<Level::reader>("bulkReceive", "returned ", rc);
        return transferCode(rc, GVUSB_ERR_BULK_TRANSFER);
    }
    if (isLogged(Level::reader)) {
        LogReceived("bulkReceive ", buf, transferred);
    }
    return transferred;
}

int GVDevice::Transceive_Bulk(const unsigned char* data, unsigned int len, unsigned char* buf,
                              unsigned int size) {
    const int sent = Transmit_Bulk(data, len);
    return sent < 0 ? sent : Receive_Bulk(buf, size);
}
