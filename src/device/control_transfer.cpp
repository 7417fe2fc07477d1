#include "device/gvdevice.h"

#include "base/log.h"
#include "device/transfer_codes.h"
#include "gvusb.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

// Vendor requests to the device; request, value and index are 0 in both directions.
constexpr std::uint8_t vendorRequest =
    std::uint8_t{LIBUSB_REQUEST_TYPE_VENDOR} | std::uint8_t{LIBUSB_RECIPIENT_DEVICE};
constexpr std::uint8_t hostToDevice = LIBUSB_ENDPOINT_OUT | vendorRequest;
constexpr std::uint8_t deviceToHost = LIBUSB_ENDPOINT_IN | vendorRequest;

constexpr unsigned int longestReceive = 4096; // libusb's limit for one control transfer

} // namespace

int GVDevice::Transmit_Ctrl(const unsigned char* data, unsigned int len) {
    constexpr const char* tag = "ctrlTransmit";
    if (isLogged(Level::reader)) {
        LogSent(tag, data, len);
    }
    if (len > UINT16_MAX) {
        return GVUSB_ERR_SEND_LENGTH;
    }
    const int rc =
        libusb_control_transfer(usbdev_hnd, hostToDevice, 0, 0, 0, const_cast<unsigned char*>(data),
                                static_cast<std::uint16_t>(len), timeout);
    if (rc >= 0) {
        return GVUSB_OK;
    }
    log<Level::reader>(tag, "returned ", rc);
    return transferCode(rc, GVUSB_ERR_CONTROL_TRANSFER);
}

int GVDevice::Receive_Ctrl(unsigned char* buf, unsigned int size) {
    const unsigned int length = std::min(size, longestReceive);
    std::memset(buf, 0, length);
    const int rc = libusb_control_transfer(usbdev_hnd, deviceToHost, 0, 0, 0, buf,
                                           static_cast<std::uint16_t>(length), timeout);
    if (rc < 0) {
        log<Level::reader>("ctrlReceive", "returned ", rc);
        return transferCode(rc, GVUSB_ERR_CONTROL_TRANSFER);
    }
    if (isLogged(Level::reader)) {
        LogReceived("ctrlReceive ", buf, rc);
    }
    return rc;
}

int GVDevice::Transceive_Ctrl(const unsigned char* data, unsigned int len, unsigned char* buf,
                              unsigned int size) {
    const int sent = Transmit_Ctrl(data, len);
    return sent < 0 ? sent : Receive_Ctrl(buf, size);
}
