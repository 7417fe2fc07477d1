#include "usbfs/sysfs.h"

#include "model/descriptors.h"
#include "preload_contract.h"
#include "usbfs/file_descriptor.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace emulator {

namespace {

constexpr unsigned usbMajor = 189;
constexpr unsigned addressesPerBus = 128;

constexpr std::array attributes = {"descriptors", "busnum", "devnum", "idVendor",
                                   "idProduct",   "speed",  "uevent", "bConfigurationValue",
                                   "subsystem"};

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

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

void writeFile(const std::string& path, std::string_view content, mode_t mode = 0644) {
    const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode), path);
    const ssize_t written = ::write(file.get(), content.data(), content.size());
    if (written != static_cast<ssize_t>(content.size())) {
        errno = written < 0 ? errno : ENOSPC;
        fail(path);
    }
}

void makeLink(const std::string& target, const std::string& path) {
    if (::symlink(target.c_str(), path.c_str()) != 0 && errno != EEXIST) {
        fail(path);
    }
}

void makeFolder(const std::string& path) {
    if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
        fail(path);
    }
}

// An empty line if the device is unconfigured.
std::string configurationText(std::uint8_t value) {
    return (value != 0 ? std::to_string(value) : std::string{}) + "\n";
}

std::string_view asText(const Bytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

unsigned minorNumber(const ShownDevice& device) {
    return (device.bus - 1U) * addressesPerBus + device.address - 1U;
}

std::string folderOf(const std::string& root, const std::string& name) {
    return root + "/sys/devices/" + name + "/";
}

} // namespace

std::string nodePath(std::uint8_t bus, std::uint8_t address) {
    return emulate_node_folder + numbered("%03u/%03u", bus, address);
}

std::string rootHubName(std::uint8_t bus) {
    return numbered("usb%u", bus);
}

ReaderDescription rootHub(std::uint8_t bus) {
    ReaderDescription hub;
    hub.vendor = 0x1D6B; // of the Linux Foundation
    hub.product = 0x0002;
    hub.release = 0x0601;
    hub.speed = Speed::high;
    hub.bus = bus;
    hub.strings.clear();
    hub.endpoints = {{.address = 0x81, .type = TransferType::interrupt, .packetSize = 4}};
    hub.kernelDriver = "hub";
    hub.descriptors =
        Bytes{18, 1, 0x00, 0x02, 9, 0, 0, 64,   0x6B, 0x1D, 0x02, 0x00, 0x01, 0x06, 0, 0, 0, 1, // device
              9,  2, 25,   0,    1, 1, 0, 0xE0, 0, // configuration
              9,  4, 0,    0,    1, 9, 0, 0,    0, // interface
              7,  5, 0x81, 3,    4, 0, 12};        // endpoint for status changes
    return hub;
}

ShownDevice shownDevice(std::string name, const ReaderDescription& description, std::uint8_t bus,
                        std::uint8_t address) {
    return {.name = std::move(name),
            .bus = bus,
            .address = address,
            .vendor = description.vendor,
            .product = description.product,
            .release = description.release,
            .speed = description.speed,
            .configuration =
                description.configurations.empty() ? std::uint8_t{0} : description.configurations.front(),
            .descriptors = allDescriptors(description)};
}

Properties propertiesOf(const ShownDevice& device) {
    return {{"MAJOR", std::to_string(usbMajor)},
            {"MINOR", std::to_string(minorNumber(device))},
            {"DEVNAME", nodePath(device.bus, device.address).substr(5)}, // relative to /dev/
            {"DEVTYPE", "usb_device"},
            {"PRODUCT", numbered("%x/%x", device.vendor, device.product) + numbered("/%x", device.release)},
            {"TYPE", device.descriptors.size() > 6
                         ? numbered("%u/%u", device.descriptors[4], device.descriptors[5]) +
                               numbered("/%u", device.descriptors[6])
                         : "0/0/0"},
            {"BUSNUM", numbered("%03u", device.bus)},
            {"DEVNUM", numbered("%03u", device.address)}};
}

Sysfs::Sysfs(std::string root)
    : m_root(std::move(root)) {
    for (const char* folder :
         {"", "/contents", "/dev", "/dev/bus", "/dev/bus/usb", "/run", "/run/udev", "/run/udev/data", "/sys",
          "/sys/bus", "/sys/bus/usb", "/sys/bus/usb/devices", "/sys/class", "/sys/devices"}) {
        makeFolder(m_root + folder);
    }
    writeFile(m_root + "/run/udev/control", ""); // without it, libudev expects no events
}

// Most files of most devices are alike. As links to one file they take neither time nor room.
void Sysfs::writeShared(const std::string& path, const std::string& content) {
    auto known = m_contents.find(content);
    if (known == m_contents.end()) {
        const std::string file = m_root + "/contents/" + std::to_string(m_contents.size());
        writeFile(file, content);
        known = m_contents.emplace(content, file).first;
    }
    if (::link(known->second.c_str(), path.c_str()) != 0) {
        ::unlink(path.c_str());
        writeFile(path, content); // there may be too many links
    }
}

struct stat Sysfs::show(const ShownDevice& device) {
    if (m_buses.size() <= device.bus) {
        m_buses.resize(device.bus + std::size_t{1});
    }
    if (!m_buses[device.bus]) {
        makeFolder(m_root + emulate_node_folder + numbered("%03u", device.bus));
        m_buses[device.bus] = true;
    }
    // What a node contains when something reads it that the preload does not reach.
    const std::string node = m_root + nodePath(device.bus, device.address);
    writeFile(node, asText(device.descriptors), nodeMode);
    ::chmod(node.c_str(), nodeMode); // whatever the umask
    struct stat status {};
    if (::stat(node.c_str(), &status) != 0) {
        fail(node);
    }

    // The files that libusb reads, and those that udev rules commonly match.
    const std::string folder = folderOf(m_root, device.name);
    makeFolder(folder);
    writeShared(folder + "descriptors", std::string(asText(device.descriptors)));
    writeShared(folder + "busnum", std::to_string(device.bus) + "\n");
    writeFile(folder + "devnum", std::to_string(device.address) + "\n");
    writeShared(folder + "idVendor", hex16(device.vendor) + "\n");
    writeShared(folder + "idProduct", hex16(device.product) + "\n");
    writeShared(folder + "speed", megabits(device.speed) + std::string("\n"));
    writeShared(folder + "bConfigurationValue", configurationText(device.configuration));
    std::string properties;
    for (const auto& [name, value] : propertiesOf(device)) {
        properties.append(name).append("=").append(value).append("\n");
    }
    writeFile(folder + "uevent", properties);
    makeLink("../../bus/usb", folder + "subsystem");
    makeLink("../../../devices/" + device.name, m_root + "/sys/bus/usb/devices/" + device.name);
    return status;
}

void Sysfs::hideNode(const ShownDevice& device) {
    ::unlink((m_root + nodePath(device.bus, device.address)).c_str());
}

void Sysfs::hide(const ShownDevice& device) {
    const std::string folder = folderOf(m_root, device.name);
    ::unlink((m_root + "/sys/bus/usb/devices/" + device.name).c_str());
    for (const char* attribute : attributes) {
        ::unlink((folder + attribute).c_str());
    }
    if (::rmdir(folder.c_str()) != 0) {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored); // a program has put something there
    }
}

// Another file, because the present one may be shared. It appears at once, as a whole.
void Sysfs::setConfiguration(const std::string& name, std::uint8_t value) const {
    const std::string path = folderOf(m_root, name) + "bConfigurationValue";
    const std::string text = configurationText(value);
    const std::string fresh = m_root + "/contents/" + name;
    {
        const FileDescriptor file(::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!file || ::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            return;
        }
    }
    ::rename(fresh.c_str(), path.c_str());
}

} // namespace emulator
