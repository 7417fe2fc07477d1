// RAII owners of libusb's objects.
#pragma once

#include "base/owner.h"

#include <span>

#include <libusb.h>

using ConfigDescriptor = Owner<libusb_config_descriptor, libusb_free_config_descriptor>;
using DeviceReference = Owner<libusb_device, libusb_unref_device>;
using DeviceHandle = Owner<libusb_device_handle, libusb_close>;

// The devices on the bus, none if libusb cannot be used. The list holds a reference to each device. To keep a device longer, take another one.
class UsbDeviceList {
public:
    explicit UsbDeviceList(bool libUsbUsable, libusb_context* context = nullptr)
        : m_count(libUsbUsable ? libusb_get_device_list(context, &m_devices) : 0) {}
    ~UsbDeviceList() noexcept(false) {
        if (m_devices != nullptr) {
            libusb_free_device_list(m_devices, 1);
        }
    }
    UsbDeviceList(const UsbDeviceList&) = delete;
    UsbDeviceList& operator=(const UsbDeviceList&) = delete;

    // The number of devices, or a negative libusb code.
    [[nodiscard]] ssize_t count() const noexcept { return m_count; }
    [[nodiscard]] std::span<libusb_device* const> devices() const noexcept {
        return {m_devices, m_count > 0 ? static_cast<std::size_t>(m_count) : 0};
    }

private:
    libusb_device** m_devices = nullptr; // declared first: initializing m_count sets it
    ssize_t m_count;
};
