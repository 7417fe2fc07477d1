// RAII owners of libusb's objects.
#pragma once

#include <libusb.h>

#include <memory>
#include <span>

struct ConfigDescriptorDeleter {
    void operator()(libusb_config_descriptor* config) const noexcept {
        libusb_free_config_descriptor(config);
    }
};
using ConfigDescriptor = std::unique_ptr<libusb_config_descriptor, ConfigDescriptorDeleter>;

struct DeviceUnreferencer {
    void operator()(libusb_device* device) const noexcept { libusb_unref_device(device); }
};
using DeviceReference = std::unique_ptr<libusb_device, DeviceUnreferencer>;

struct DeviceHandleCloser {
    void operator()(libusb_device_handle* handle) const noexcept { libusb_close(handle); }
};
using DeviceHandle = std::unique_ptr<libusb_device_handle, DeviceHandleCloser>;

// The devices on the bus. The list holds a reference to each device. To keep a device longer, take another one.
class UsbDeviceList {
public:
    explicit UsbDeviceList(bool libUsbUsable) noexcept
        : m_count(libUsbUsable ? libusb_get_device_list(nullptr, &m_devices) : 0) {}
    ~UsbDeviceList() {
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
