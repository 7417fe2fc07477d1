#include "usbfs/attributes.h"

#include "preload_contract.h"

#include <algorithm>
#include <set>
#include <span>

namespace emulator {

namespace {

constexpr unsigned usbMajor = 189;
constexpr unsigned addressesPerBus = 128;

// Descriptors of these types, with the sizes that USB gives them.
constexpr std::uint8_t interfaceType = 4;
constexpr std::uint8_t endpointType = 5;
constexpr std::size_t deviceSize = 18;
constexpr std::size_t configurationSize = 9;
constexpr std::size_t interfaceSize = 9;
constexpr std::size_t endpointSize = 7;

constexpr std::size_t mostInterfaces = 32; // that the kernel accepts

using Descriptor = std::span<const std::uint8_t>;

std::string line(const char* format, unsigned value) {
    return numbered(format, value) + "\n";
}

// The byte at an offset; 0 if the descriptor ends before.
unsigned byteAt(Descriptor bytes, std::size_t offset) {
    return offset < bytes.size() ? bytes[offset] : 0;
}

unsigned wordAt(Descriptor bytes, std::size_t offset) {
    return byteAt(bytes, offset) | byteAt(bytes, offset + 1) << 8;
}

const char* megabits(Speed speed) {
    switch (speed) {
    case Speed::low:
        return "1.5\n";
    case Speed::full:
        return "12\n";
    case Speed::high:
        break;
    }
    return "480\n";
}

unsigned minorNumber(const ShownDevice& device) {
    return (device.bus - 1U) * addressesPerBus + device.address - 1U;
}

// With the descriptors that follow it. Empty if the device has no such configuration.
Descriptor configurationIn(const Bytes& descriptors, std::uint8_t value) {
    Descriptor rest(descriptors);
    rest = rest.subspan(std::min(deviceSize, rest.size()));
    while (rest.size() >= configurationSize) {
        const std::size_t total = std::clamp<std::size_t>(wordAt(rest, 2), configurationSize, rest.size());
        if (rest[5] == value) {
            return rest.first(total);
        }
        rest = rest.subspan(total);
    }
    return {};
}

void addString(Attributes& attributes, const ShownDevice& device, const char* name, unsigned index) {
    const auto found = device.strings.find(static_cast<std::uint8_t>(index));
    if (index != 0 && found != device.strings.end()) {
        attributes.push_back({name, found->second + "\n"});
    }
}

// Of an interrupt endpoint at high speed, two to this power of microframes.
std::string intervalText(Speed speed, TransferType type, Descriptor endpoint) {
    constexpr unsigned highestPower = 15;
    const unsigned given = byteAt(endpoint, 6);
    const unsigned power = 1U << (std::clamp(given, 1U, highestPower + 1) - 1);
    const bool high = speed == Speed::high;
    const bool in = (byteAt(endpoint, 2) & 0x80) != 0;
    unsigned units = 0;
    switch (type) {
    case TransferType::isochronous:
        units = power;
        break;
    case TransferType::interrupt:
        units = high ? power : given;
        break;
    case TransferType::bulk:
        units = high && !in ? given : 0;
        break;
    case TransferType::control:
        units = high ? given : 0;
        break;
    }
    const unsigned microseconds = units * (high ? 125 : 1000);
    return microseconds % 1000 == 0 ? line("%ums", microseconds / 1000) : line("%uus", microseconds);
}

void addEndpoint(Attributes& attributes, Speed speed, Descriptor endpoint) {
    static constexpr const char* types[] = {"Control\n", "Isoc\n", "Bulk\n", "Interrupt\n"};
    const auto type = static_cast<TransferType>(byteAt(endpoint, 3) & 3);
    const unsigned address = byteAt(endpoint, 2);
    const std::string folder = numbered("ep_%02x", address) + "/";
    const char* const direction = type == TransferType::control ? "both\n"
                                  : (address & 0x80) != 0       ? "in\n"
                                                                : "out\n";
    attributes.push_back({folder + "bLength", line("%02x", byteAt(endpoint, 0))});
    attributes.push_back({folder + "bEndpointAddress", line("%02x", address)});
    attributes.push_back({folder + "bmAttributes", line("%02x", byteAt(endpoint, 3))});
    attributes.push_back({folder + "bInterval", line("%02x", byteAt(endpoint, 6))});
    attributes.push_back({folder + "wMaxPacketSize", line("%04x", wordAt(endpoint, 4) & 0x7FF)});
    attributes.push_back({folder + "interval", intervalText(speed, type, endpoint)});
    attributes.push_back({folder + "type", types[static_cast<unsigned>(type)]});
    attributes.push_back({folder + "direction", direction});
}

std::string productText(const ShownDevice& device) {
    return numbered("%x/%x", device.vendor, device.product) + numbered("/%x", device.release);
}

std::string typeText(const ShownDevice& device) {
    const Descriptor bytes(device.descriptors);
    return numbered("%u/%u", byteAt(bytes, 4), byteAt(bytes, 5)) + numbered("/%u", byteAt(bytes, 6));
}

std::string modalias(const ShownDevice& device, Descriptor shown) {
    const Descriptor bytes(device.descriptors);
    return numbered("usb:v%04Xp%04X", device.vendor, device.product) + numbered("d%04X", device.release) +
           numbered("dc%02Xdsc%02X", byteAt(bytes, 4), byteAt(bytes, 5)) +
           numbered("dp%02X", byteAt(bytes, 6)) +
           numbered("ic%02Xisc%02X", byteAt(shown, 5), byteAt(shown, 6)) +
           numbered("ip%02Xin%02X", byteAt(shown, 7), byteAt(shown, 2));
}

ShownInterface interfaceFrom(const ShownDevice& device, std::uint8_t configuration, Descriptor shown) {
    ShownInterface made;
    made.name = interfaceName(device, configuration, byteAt(shown, 2));
    const std::string alias = modalias(device, shown);
    made.attributes = {
        {"bInterfaceNumber", line("%02x", byteAt(shown, 2))},
        {"bAlternateSetting", line("%2u", byteAt(shown, 3))},
        {"bNumEndpoints", line("%02x", byteAt(shown, 4))},
        {"bInterfaceClass", line("%02x", byteAt(shown, 5))},
        {"bInterfaceSubClass", line("%02x", byteAt(shown, 6))},
        {"bInterfaceProtocol", line("%02x", byteAt(shown, 7))},
        {"modalias", alias + "\n"},
        {"supports_autosuspend", "1\n"},
        {"authorized", "1\n"},
        {"uevent", "DEVTYPE=usb_interface\nPRODUCT=" + productText(device) + "\nTYPE=" + typeText(device) +
                       "\nINTERFACE=" + numbered("%u/%u", byteAt(shown, 5), byteAt(shown, 6)) +
                       numbered("/%u", byteAt(shown, 7)) + "\nMODALIAS=" + alias + "\n"},
    };
    addString(made.attributes, device, "interface", byteAt(shown, 8));
    return made;
}

} // namespace

std::string nodePath(std::uint8_t bus, std::uint8_t address) {
    return emulate_node_folder + numbered("%03u/%03u", bus, address);
}

std::string nodeNumber(const ShownDevice& device) {
    return numbered("%u:%u", usbMajor, minorNumber(device));
}

std::string rootHubName(std::uint8_t bus) {
    return numbered("usb%u", bus);
}

std::string controllerPath(std::uint8_t bus) {
    return "/devices/platform/" + numbered("gvusb.%u", bus);
}

std::string devicePath(const ShownDevice& device) {
    std::string hub = controllerPath(device.bus) + "/" + rootHubName(device.bus);
    if (device.port == 0) {
        return hub;
    }
    // Each hub's folder contains the devices on its ports: 1-2/1-2.3.
    std::string path = hub;
    for (std::size_t dot = device.name.find('.'); dot != std::string::npos;
         dot = device.name.find('.', dot + 1)) {
        path += "/" + device.name.substr(0, dot);
    }
    return path + "/" + device.name;
}

std::string interfaceName(const ShownDevice& device, std::uint8_t configuration, unsigned number) {
    const std::string place = device.port == 0 ? numbered("%u-0", device.bus) : device.name;
    return place + numbered(":%u.%u", configuration, number);
}

Properties propertiesOf(const ShownDevice& device) {
    return {{"MAJOR", std::to_string(usbMajor)},
            {"MINOR", std::to_string(minorNumber(device))},
            {"DEVNAME", nodePath(device.bus, device.address).substr(5)}, // relative to /dev/
            {"DEVTYPE", "usb_device"},
            {"PRODUCT", productText(device)},
            {"TYPE", typeText(device)},
            {"BUSNUM", numbered("%03u", device.bus)},
            {"DEVNUM", numbered("%03u", device.address)}};
}

Attributes addressAttributes(const ShownDevice& device) {
    std::string properties;
    for (const auto& [name, value] : propertiesOf(device)) {
        properties.append(name).append("=").append(value).append("\n");
        if (name == "DEVTYPE") {
            properties += "DRIVER=usb\n"; // bound after the event
        }
    }
    return {{"devnum", line("%u", device.address)},
            {"dev", nodeNumber(device) + "\n"},
            {"uevent", std::move(properties)}};
}

Attributes configurationAttributes(const ShownDevice& device, std::uint8_t configuration) {
    const Descriptor active =
        configuration != 0 ? configurationIn(device.descriptors, configuration) : Descriptor{};
    constexpr unsigned milliamperes = 2; // each of bMaxPower
    Attributes attributes;
    attributes.push_back({"bConfigurationValue", configuration != 0 ? line("%u", configuration) : ""});
    attributes.push_back({"bNumInterfaces", active.empty() ? "" : line("%2u", active[4])});
    attributes.push_back({"bmAttributes", active.empty() ? "" : line("%2x", active[7])});
    attributes.push_back({"bMaxPower", active.empty() ? "" : line("%umA", active[8] * milliamperes)});
    attributes.push_back({"configuration", ""});
    if (!active.empty()) {
        const auto name = device.strings.find(active[6]);
        if (active[6] != 0 && name != device.strings.end()) {
            attributes.back().content = name->second + "\n";
        }
    }
    return attributes;
}

Attributes fixedAttributes(const ShownDevice& device) {
    const Descriptor bytes(device.descriptors);
    const std::uint8_t packetSize = static_cast<std::uint8_t>(byteAt(bytes, 7));
    Attributes attributes = {
        {"descriptors", std::string(device.descriptors.begin(), device.descriptors.end())},
        {"busnum", line("%u", device.bus)},
        {"devpath", device.port == 0 ? "0\n" : device.name.substr(device.name.find('-') + 1) + "\n"},
        {"idVendor", line("%04x", device.vendor)},
        {"idProduct", line("%04x", device.product)},
        {"bcdDevice", line("%04x", device.release)},
        {"bDeviceClass", line("%02x", byteAt(bytes, 4))},
        {"bDeviceSubClass", line("%02x", byteAt(bytes, 5))},
        {"bDeviceProtocol", line("%02x", byteAt(bytes, 6))},
        {"bMaxPacketSize0", line("%u", packetSize)},
        {"bNumConfigurations", line("%u", byteAt(bytes, 17))},
        {"version", numbered("%2x.%02x", byteAt(bytes, 3), byteAt(bytes, 2)) + "\n"},
        {"speed", megabits(device.speed)},
        {"rx_lanes", "1\n"},
        {"tx_lanes", "1\n"},
        {"maxchild", line("%u", device.ports)},
        {"quirks", "0x0\n"},
        {"avoid_reset_quirk", "0\n"},
        {"authorized", "1\n"},
        {"ltm_capable", "no\n"},
    };
    if (device.port == 0) {
        attributes.push_back({"authorized_default", "1\n"});
        attributes.push_back({"interface_authorized_default", "1\n"});
    }
    addString(attributes, device, "manufacturer", byteAt(bytes, 14));
    addString(attributes, device, "product", byteAt(bytes, 15));
    addString(attributes, device, "serial", byteAt(bytes, 16));
    addEndpoint(attributes, device.speed, Bytes{endpointSize, endpointType, 0, 0, packetSize, 0, 0});
    return attributes;
}

std::vector<ShownInterface> interfacesOf(const ShownDevice& device, std::uint8_t configuration) {
    std::vector<ShownInterface> interfaces;
    Descriptor rest = configuration != 0 ? configurationIn(device.descriptors, configuration) : Descriptor{};
    std::set<std::string> names;
    std::set<unsigned> endpoints;
    bool inside = false; // the first setting of an interface
    for (std::size_t length = configurationSize; rest.size() > length; length = rest[0]) {
        rest = rest.subspan(length);
        if (rest.size() < 2 || rest[0] < 2 || rest[0] > rest.size()) {
            break;
        }
        const Descriptor each = rest.first(rest[0]);
        if (each[1] == interfaceType) {
            inside = false;
            if (each.size() >= interfaceSize && each[3] == 0 && interfaces.size() < mostInterfaces) {
                ShownInterface made = interfaceFrom(device, configuration, each);
                inside = names.insert(made.name).second;
                if (inside) {
                    interfaces.push_back(std::move(made));
                    endpoints.clear();
                }
            }
        } else if (inside && each[1] == endpointType && each.size() >= endpointSize &&
                   endpoints.insert(each[2]).second) {
            addEndpoint(interfaces.back().attributes, device.speed, each);
        }
    }
    return interfaces;
}

} // namespace emulator
