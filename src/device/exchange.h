// How frames are transferred: the same for libusb's synchronous functions and for transfers that can be ended.
#pragma once

#include "base/log.h"
#include "device/gvdevice.h"
#include "device/transfer_codes.h"
#include "gvusb.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

// Like EndableTransfer, by libusb's synchronous functions.
struct SynchronousTransfer {
    libusb_device_handle* handle;
    unsigned int timeout;

    int bulk(std::uint8_t endpoint, unsigned char* data, int length) const {
        int transferred = 0;
        const int code = libusb_bulk_transfer(handle, endpoint, data, length, &transferred, timeout);
        return code < 0 ? code : transferred;
    }
    int vendorControl(std::uint8_t requestType, unsigned char* data, std::uint16_t length) const {
        return libusb_control_transfer(handle, requestType, 0, 0, 0, data, length, timeout);
    }
};

namespace control {

// Vendor requests to the device; request, value and index are 0 in both directions.
inline constexpr std::uint8_t vendorRequest =
    std::uint8_t{LIBUSB_REQUEST_TYPE_VENDOR} | std::uint8_t{LIBUSB_RECIPIENT_DEVICE};
inline constexpr std::uint8_t hostToDevice = LIBUSB_ENDPOINT_OUT | vendorRequest;
inline constexpr std::uint8_t deviceToHost = LIBUSB_ENDPOINT_IN | vendorRequest;

inline constexpr unsigned int longestReceive = 4096; // libusb's limit for one control transfer

} // namespace control

// libusb takes the length as an int.
template <class Usb>
int bulkTransfer(Usb& usb, std::uint8_t endpoint, unsigned char* data, unsigned int length) {
    return length > INT_MAX ? int{LIBUSB_ERROR_INVALID_PARAM}
                            : usb.bulk(endpoint, data, static_cast<int>(length));
}

template <class Usb>
int GVDevice::TransmitBulk(Usb& usb, const unsigned char* data, unsigned int len) {
    constexpr const char* tag = "bulkTransmit";
    if (isLogged(Level::reader)) {
        LogSent(tag, data, len);
    }
    const int rc = bulkTransfer(usb, addrOut, const_cast<unsigned char*>(data), len);
    return rc >= 0 ? int{GVUSB_OK} : BulkTransmitFailed(tag, rc);
}

template <class Usb>
int GVDevice::ReceiveBulk(Usb& usb, unsigned char* buf, unsigned int size) {
    std::memset(buf, 0, size);
    const int rc = bulkTransfer(usb, addrIn, buf, size);
    if (rc < 0) {
        log<Level::reader>("bulkReceive", "returned ", rc);
        return transferCode(rc, GVUSB_ERR_BULK_TRANSFER);
    }
    if (isLogged(Level::reader)) {
        LogReceived("bulkReceive ", buf, rc);
    }
    return rc;
}

template <class Usb>
int GVDevice::TransceiveBulk(Usb& usb, const unsigned char* data, unsigned int len, unsigned char* buf,
                             unsigned int size) {
    const int sent = TransmitBulk(usb, data, len);
    return sent < 0 ? sent : ReceiveBulk(usb, buf, size);
}

template <class Usb>
[[gnu::noinline]] int GVDevice::TransmitControl(Usb& usb, const unsigned char* data, unsigned int len) {
    constexpr const char* tag = "ctrlTransmit";
    if (isLogged(Level::reader)) {
        LogSent(tag, data, len);
    }
    if (len > UINT16_MAX) {
        return GVUSB_ERR_SEND_LENGTH;
    }
    const int rc = usb.vendorControl(control::hostToDevice, const_cast<unsigned char*>(data),
                                     static_cast<std::uint16_t>(len));
    if (rc >= 0) {
        return GVUSB_OK;
    }
    log<Level::reader>(tag, "returned ", rc);
    return transferCode(rc, GVUSB_ERR_CONTROL_TRANSFER);
}

template <class Usb>
[[gnu::noinline]] int GVDevice::ReceiveControl(Usb& usb, unsigned char* buf, unsigned int size) {
    const unsigned int length = std::min(size, control::longestReceive);
    std::memset(buf, 0, length);
    const int rc = usb.vendorControl(control::deviceToHost, buf, static_cast<std::uint16_t>(length));
    if (rc < 0) {
        log<Level::reader>("ctrlReceive", "returned ", rc);
        return transferCode(rc, GVUSB_ERR_CONTROL_TRANSFER);
    }
    if (isLogged(Level::reader)) {
        LogReceived("ctrlReceive ", buf, rc);
    }
    return rc;
}

template <class Usb>
int GVDevice::TransceiveControl(Usb& usb, const unsigned char* data, unsigned int len, unsigned char* buf,
                                unsigned int size) {
    const int sent = TransmitControl(usb, data, len);
    return sent < 0 ? sent : ReceiveControl(usb, buf, size);
}
