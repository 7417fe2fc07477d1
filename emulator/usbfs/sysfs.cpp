#include "usbfs/sysfs.h"

#include "model/text.h"
#include "preload_contract.h"

#include <array>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <vector>

namespace emulator {

namespace {

std::string hex16(std::uint16_t value) {
    return numbered("%04x", value);
}

const char* megabits(Speed speed) {
    switch (speed) {
    case Speed::low:
        return "1.5";
    case Speed::full:
        return "12";
    case Speed::high:
        break;
    }
    return "480";
}

void writeFile(const std::string& file, std::string_view content) {
    std::ofstream(file, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
}

// An empty line if the device is unconfigured.
std::string configurationText(std::uint8_t value) {
    return (value != 0 ? std::to_string(value) : std::string{}) + "\n";
}

std::string_view asText(const Bytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// The files that libusb reads, and the two that udev rules commonly match. umockdev could write them, but it
// creates each under another name first, which dominates the start with hundreds of readers.
void writeAttributes(const std::string& folder, const ShownDevice& device) {
    writeFile(folder + "descriptors", asText(device.descriptors));
    writeFile(folder + "busnum", std::to_string(device.bus) + "\n");
    writeFile(folder + "devnum", std::to_string(device.address) + "\n");
    writeFile(folder + "idVendor", hex16(device.vendor) + "\n");
    writeFile(folder + "idProduct", hex16(device.product) + "\n");
    writeFile(folder + "speed", megabits(device.speed) + std::string("\n"));
    writeFile(folder + "bConfigurationValue", configurationText(device.configuration));
}

// Names and values in turn, null-terminated, as umockdev expects them.
std::vector<gchar*> pairs(std::vector<std::string>& texts) {
    std::vector<gchar*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

ShownDevice rootHub(std::uint8_t bus) {
    return {.bus = bus,
            .address = rootHubAddress,
            .vendor = 0x1D6B, // of the Linux Foundation
            .product = 0x0002,
            .release = 0x0601,
            .speed = Speed::high,
            .configuration = 1,
            .descriptors = {18,   1,    0x00, 0x02, 9,    0, 0, 64,   0x6B,
                            0x1D, 0x02, 0x00, 0x01, 0x06, 3, 2, 1,    1, // device
                            9,    2,    25,   0,    1,    1, 0, 0xE0, 0, // configuration
                            9,    4,    0,    0,    1,    9, 0, 0,    0, // interface
                            7,    5,    0x81, 3,    4,    0, 12}};       // endpoint for status changes
}

} // namespace

std::string nodePath(std::uint8_t bus, std::uint8_t address) {
    return emulate_node_folder + numbered("%03u/%03u", bus, address);
}

std::string show(UMockdevTestbed* testbed, const std::string& root, const std::string& name,
                 const ShownDevice& device) {
    std::string path = "/sys/devices/" + name;
    std::filesystem::create_directories(root + path);
    writeAttributes(root + path + "/", device);
    std::vector<std::string> properties;
    const auto property = [&](const char* key, std::string value) {
        properties.emplace_back(key);
        properties.push_back(std::move(value));
    };
    property("DEVTYPE", "usb_device");
    property("DEVNAME", nodePath(device.bus, device.address));
    property("BUSNUM", numbered("%03u", device.bus));
    property("DEVNUM", numbered("%03u", device.address));
    property("MAJOR", "189"); // of USB devices
    property("MINOR", std::to_string((device.bus - 1) * 128 + device.address - 1));
    property("PRODUCT", numbered("%x/%x", device.vendor, device.product) + numbered("/%x", device.release));
    std::array<gchar*, 1> noAttributes = {nullptr};
    g_free(umockdev_testbed_add_devicev(testbed, "usb", name.c_str(), nullptr, noAttributes.data(),
                                        pairs(properties).data()));
    return path;
}

void showRootHub(UMockdevTestbed* testbed, const std::string& root, std::uint8_t bus) {
    const ShownDevice hub = rootHub(bus);
    const std::filesystem::path node = root + nodePath(hub.bus, hub.address);
    std::filesystem::create_directories(node.parent_path());
    writeFile(node, asText(hub.descriptors));
    show(testbed, root, numbered("usb%u", bus), hub);
}

} // namespace emulator
