#include "device/gvdevice.h"

#include "base/log.h"
#include "base/usb_owners.h"
#include "gvusb.h"

#include <algorithm>
#include <span>

namespace {

constexpr int usedInterface = 0;

// libusb's counts come from the reader. If its descriptors are truncated, the list can be null.
template <class Entry>
std::span<const Entry> listed(const Entry* first, int count) {
    return {first, first == nullptr ? 0 : static_cast<std::size_t>(std::max(count, 0))};
}

// Return the endpoints of interface 0 in its alternate setting 0, or none if there is no such interface.
std::span<const libusb_endpoint_descriptor> endpointsOf(const libusb_config_descriptor& config) {
    for (const libusb_interface& interface : listed(config.interface, config.bNumInterfaces)) {
        for (const libusb_interface_descriptor& setting :
             listed(interface.altsetting, interface.num_altsetting)) {
            if (setting.bInterfaceNumber == usedInterface && setting.bAlternateSetting == 0) {
                return listed(setting.endpoint, setting.bNumEndpoints);
            }
        }
    }
    return {};
}

bool isBulk(const libusb_endpoint_descriptor& endpoint) {
    return (endpoint.bmAttributes & LIBUSB_TRANSFER_TYPE_MASK) == LIBUSB_TRANSFER_TYPE_BULK;
}

} // namespace

int GVDevice::GetBulkEndPoints() {
    constexpr const char* tag = "get bulk end points";
    ForgetBulkEndPoints();
    if (usbdev == nullptr || usbdev_hnd == nullptr) {
        log<Level::reader>(tag, "usbdev=NULL or usbdev_hnd=NULL");
        return GVUSB_ERR_NOT_OPENED;
    }
    transferMode = TransferMode::control;
    libusb_device_descriptor device = {};
    libusb_get_device_descriptor(usbdev, &device);
    if (device.bNumConfigurations == 0) {
        log<Level::reader>(tag, "no configurations");
        return GVUSB_ERR_NO_CONFIGURATION;
    }
    libusb_config_descriptor* first = nullptr;
    if (const int rc = libusb_get_config_descriptor(usbdev, 0, &first); rc < 0) {
        log<Level::reader>(tag, "libusb_get_config_descriptor(0) returned ", rc);
        return GVUSB_ERR_CONFIG_DESCRIPTOR_READ;
    }
    ConfigDescriptor config(first);
    for (const libusb_endpoint_descriptor& endpoint : endpointsOf(*config)) {
        if (isBulk(endpoint)) {
            const bool in = (endpoint.bEndpointAddress & LIBUSB_ENDPOINT_IN) != 0;
            (in ? addrIn : addrOut) = endpoint.bEndpointAddress;
        }
    }
    if (addrIn != noEndpoint && addrOut != noEndpoint) {
        transferMode = TransferMode::bulk;
    }
    log<Level::reader>(tag, "addrIn=", unsigned{addrIn}, " addrOut=", unsigned{addrOut});
    config.reset();

    // The result does not matter: without a kernel driver, the usual case, it is an error.
    const int detached = libusb_detach_kernel_driver(usbdev_hnd, usedInterface);
    log<Level::reader>(tag, "detach driver returned: ", detached);
    if (const int rc = libusb_claim_interface(usbdev_hnd, usedInterface); rc < 0) {
        log<Level::reader>(tag, "libusb_claim_interface(0) returned ", rc);
        return GVUSB_ERR_CANNOT_CLAIM;
    }
    return GVUSB_OK;
}

void GVDevice::ResetBulkEndPoints() {
    if (transferMode == TransferMode::bulk) {
        libusb_clear_halt(usbdev_hnd, addrOut);
        libusb_clear_halt(usbdev_hnd, addrIn);
    }
}

void GVDevice::ForgetBulkEndPoints() {
    transferMode = TransferMode::unknown;
    addrIn = noEndpoint;
    addrOut = noEndpoint;
}
