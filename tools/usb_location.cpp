#include "usb_location.h"

#include "base/reader_facts.h"
#include "base/usb_owners.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <set>
#include <span>
#include <string_view>
#include <system_error>
#include <thread>

#include <libusb.h>

namespace {

namespace fs = std::filesystem;

// The numbers in a path such as /dev/bus/usb/001/007.
std::optional<UsbNode> nodeOf(std::string_view path) {
    constexpr std::string_view folder = "/bus/usb/";
    const std::size_t found = path.rfind(folder);
    if (found == std::string_view::npos) {
        return std::nullopt;
    }
    path.remove_prefix(found + folder.size());
    UsbNode node;
    const char* const end = path.data() + path.size();
    const auto [separator, badBus] = std::from_chars(path.data(), end, node.bus);
    if (badBus != std::errc{} || separator == end || *separator != '/') {
        return std::nullopt;
    }
    const auto [stop, badAddress] = std::from_chars(separator + 1, end, node.address);
    return badAddress == std::errc{} ? std::optional(node) : std::nullopt;
}

// The library's polling thread opens other readers for a moment to read their device IDs.
std::optional<UsbNode> onlyOpenNode() {
    constexpr int attempts = 200;
    constexpr std::chrono::milliseconds pause(5);
    for (int i = 0; i < attempts; ++i) {
        const std::set<UsbNode> nodes = openUsbNodes();
        if (nodes.size() == 1) {
            return *nodes.begin();
        }
        if (nodes.empty()) {
            break;
        }
        std::this_thread::sleep_for(pause);
    }
    return std::nullopt;
}

std::string pathOf(libusb_device* device) {
    constexpr std::size_t deepest = 7; // USB allows no more hubs in a row
    std::array<std::uint8_t, deepest> ports{};
    const int count = libusb_get_port_numbers(device, ports.data(), static_cast<int>(ports.size()));
    if (count <= 0) {
        return {};
    }
    std::string path = "usb:" + std::to_string(libusb_get_bus_number(device));
    for (int i = 0; i < count; ++i) {
        path += (i == 0 ? '-' : '.') + std::to_string(ports[static_cast<std::size_t>(i)]);
    }
    return path;
}

bool hasBulkEndpoints(libusb_device* device) {
    libusb_config_descriptor* first = nullptr;
    if (libusb_get_config_descriptor(device, 0, &first) != LIBUSB_SUCCESS) {
        return false;
    }
    const ConfigDescriptor config(first);
    if (config->interface == nullptr || config->bNumInterfaces == 0 ||
        config->interface->num_altsetting <= 0) {
        return false;
    }
    const libusb_interface_descriptor& setting = *config->interface->altsetting;
    bool in = false;
    bool out = false;
    for (const libusb_endpoint_descriptor& endpoint :
         std::span(setting.endpoint, setting.endpoint == nullptr ? 0 : setting.bNumEndpoints)) {
        if ((endpoint.bmAttributes & LIBUSB_TRANSFER_TYPE_MASK) == LIBUSB_TRANSFER_TYPE_BULK) {
            ((endpoint.bEndpointAddress & LIBUSB_ENDPOINT_IN) != 0 ? in : out) = true;
        }
    }
    return in && out;
}

} // namespace

std::set<UsbNode> openUsbNodes() {
    std::set<UsbNode> nodes;
    std::error_code refused;
    fs::directory_iterator descriptors("/proc/self/fd", refused);
    for (; !refused && descriptors != fs::directory_iterator(); descriptors.increment(refused)) {
        std::error_code closed;
        if (const auto node = nodeOf(fs::read_symlink(descriptors->path(), closed).string());
            node && !closed) {
            nodes.insert(*node);
        }
    }
    return nodes;
}

std::optional<UsbLocation> locationOfOpenReader() {
    const std::optional<UsbNode> node = onlyOpenNode();
    if (!node) {
        return std::nullopt;
    }
    UsbLocation location{.bus = node->bus, .address = node->address, .path = {}, .hasBulkEndpoints = false};
    const UsbDeviceList devices(true); // the library has initialized the default context: a reader is open
    for (libusb_device* const device : devices.devices()) {
        if (libusb_get_bus_number(device) == node->bus &&
            libusb_get_device_address(device) == node->address) {
            location.path = pathOf(device);
            location.hasBulkEndpoints = hasBulkEndpoints(device);
        }
    }
    return location;
}

std::vector<UsbLocation> readersOnBus() {
    std::vector<UsbLocation> locations;
    // The default context, which the library has initialized unless libusb cannot be used.
    if (libusb_init(nullptr) != LIBUSB_SUCCESS) {
        return locations;
    }
    {
        const UsbDeviceList devices(true);
        for (libusb_device* const device : devices.devices()) {
            libusb_device_descriptor descriptor = {};
            libusb_get_device_descriptor(device, &descriptor);
            if (descriptor.idVendor == GVUSB_VENDOR_ID && isReaderProduct(descriptor.idProduct)) {
                locations.push_back({.bus = libusb_get_bus_number(device),
                                     .address = libusb_get_device_address(device),
                                     .path = pathOf(device),
                                     .hasBulkEndpoints = false});
            }
        }
    }
    libusb_exit(nullptr);
    return locations;
}
