// The files by which the kernel describes a USB device in /sys: the device, its interfaces and endpoints, computed from
// the descriptors as programs read them.
//
// Missing are `urbnum`, `remove` and the folder `power`, which would have to change or to act.
// Any thread may call these.
#pragma once

#include "model/description.h"

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace emulator {

struct ShownDevice {
    std::string name; // in /sys/bus/usb/devices
    std::uint8_t bus = 1;
    std::uint8_t address = 0;
    unsigned port = 0; // of the root hub; 0 for the hub itself
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::uint16_t release = 0;
    Speed speed = Speed::full;
    std::uint8_t configuration = 0;              // when it is plugged in
    Bytes descriptors;                           // of the device, then of each configuration
    std::map<std::uint8_t, std::string> strings; // that can be read
    unsigned ports = 0;                          // of a hub

    bool operator==(const ShownDevice&) const = default;
};

struct Attribute {
    std::string path; // relative to the folder of the device or interface
    std::string content;
};
using Attributes = std::vector<Attribute>;

struct ShownInterface {
    std::string name;
    Attributes attributes;
};

// What depends on the device's address.
Attributes addressAttributes(const ShownDevice& device);

// What depends on the active configuration, which may be none.
Attributes configurationAttributes(const ShownDevice& device, std::uint8_t configuration);

// Everything else.
Attributes fixedAttributes(const ShownDevice& device);

// The interfaces of a configuration.
std::vector<ShownInterface> interfacesOf(const ShownDevice& device, std::uint8_t configuration);

// In /sys/bus/usb/devices.
std::string interfaceName(const ShownDevice& device, std::uint8_t configuration, unsigned number);

// The names and values that describe a device in udev events.
using Properties = std::vector<std::pair<std::string_view, std::string>>;
Properties propertiesOf(const ShownDevice& device);

// The device's number, such as "189:1".
std::string nodeNumber(const ShownDevice& device);

// The node of the device with this address, as programs see it.
std::string nodePath(std::uint8_t bus, std::uint8_t address);

// The folder of the host controller or of a device, relative to /sys.
std::string controllerPath(std::uint8_t bus);
std::string devicePath(const ShownDevice& device);

std::string rootHubName(std::uint8_t bus);

} // namespace emulator
