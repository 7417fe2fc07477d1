#include "usbfs/sysfs.h"

#include "model/descriptors.h"
#include "preload_contract.h"
#include "usbfs/file_descriptor.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace emulator {

namespace {

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

std::string_view asText(const Bytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// The way up from a folder below /sys to /sys, as links have it.
std::string upFrom(std::string_view path) {
    std::string up;
    for (const char character : path) {
        if (character == '/') {
            up += "../";
        }
    }
    return up;
}

} // namespace

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
    hub.hub = true;
    hub.descriptors =
        Bytes{18, 1, 0x00, 0x02, 9, 0, 0, 64,   0x6B, 0x1D, 0x02, 0x00, 0x01, 0x06, 0, 0, 0, 1, // device
              9,  2, 25,   0,    1, 1, 0, 0xE0, 0, // configuration
              9,  4, 0,    0,    1, 9, 0, 0,    0, // interface
              7,  5, 0x81, 3,    4, 0, 12};        // endpoint for status changes
    return hub;
}

ShownDevice shownDevice(std::string name, const ReaderDescription& description, std::uint8_t bus,
                        std::uint8_t address, unsigned port) {
    return {.name = std::move(name),
            .bus = bus,
            .address = address,
            .port = port,
            .vendor = description.vendor,
            .product = description.product,
            .release = description.release,
            .speed = description.speed,
            .configuration =
                description.configurations.empty() ? std::uint8_t{0} : description.configurations.front(),
            .descriptors = allDescriptors(description),
            .strings = description.strings,
            .ports = 0};
}

Sysfs::Sysfs(std::string root)
    : m_root(std::move(root)) {
    for (const char* folder : {"",
                               "/contents",
                               "/dev",
                               "/dev/bus",
                               "/dev/bus/usb",
                               "/parked",
                               "/run",
                               "/run/udev",
                               "/run/udev/data",
                               "/sys",
                               "/sys/bus",
                               "/sys/bus/platform",
                               "/sys/bus/platform/devices",
                               "/sys/bus/platform/drivers",
                               "/sys/bus/platform/drivers/gvusb",
                               "/sys/bus/usb",
                               "/sys/bus/usb/devices",
                               "/sys/bus/usb/drivers",
                               "/sys/bus/usb/drivers/usb",
                               "/sys/class",
                               "/sys/dev",
                               "/sys/dev/char",
                               "/sys/devices",
                               "/sys/devices/platform"}) {
        makeFolder(m_root + folder);
    }
    writeFile(m_root + "/run/udev/control", ""); // without it, libudev expects no events
}

std::string Sysfs::folderOf(const ShownDevice& device) const {
    return m_root + "/sys" + devicePath(device) + "/";
}

// Most files of most devices are alike. As links to one file they take neither time nor room.
void Sysfs::writeShared(const std::string& path, const std::string& content) {
    std::string shared;
    {
        const std::lock_guard lock(m_mutex);
        auto known = m_contents.find(content);
        if (known == m_contents.end()) {
            const std::string file = m_root + "/contents/" + std::to_string(m_contents.size());
            writeFile(file, content);
            known = m_contents.emplace(content, file).first;
        }
        shared = known->second;
    }
    if (::link(shared.c_str(), path.c_str()) != 0) {
        ::unlink(path.c_str());
        writeFile(path, content); // there may be too many links
    }
}

void Sysfs::writeAttributes(const std::string& folder, const Attributes& attributes) {
    std::string made;
    for (const auto& [path, content] : attributes) {
        const auto slash = path.find('/');
        if (slash != std::string::npos && path.substr(0, slash) != made) {
            made = path.substr(0, slash);
            makeFolder(folder + made);
        }
        writeShared(folder + path, content);
    }
}

void Sysfs::showBus(std::uint8_t bus) {
    if (m_buses.size() <= bus) {
        m_buses.resize(bus + std::size_t{1});
    }
    if (m_buses[bus]) {
        return;
    }
    const std::string path = controllerPath(bus);
    const std::string folder = m_root + "/sys" + path;
    makeFolder(m_root + emulate_node_folder + numbered("%03u", bus));
    makeFolder(folder);
    writeFile(folder + "/uevent", "DRIVER=gvusb\nMODALIAS=platform:gvusb\n");
    makeLink(upFrom(path) + "bus/platform", folder + "/subsystem");
    makeLink(upFrom(path) + "bus/platform/drivers/gvusb", folder + "/driver");
    makeLink("../../.." + path, m_root + "/sys/bus/platform/devices/" + numbered("gvusb.%u", bus));
    m_buses[bus] = true;
}

void Sysfs::makeInterface(const ShownDevice& device, const std::string& folder, const ShownInterface& shown) {
    const std::string path = devicePath(device) + "/" + shown.name;
    const std::string own = folder + shown.name + "/";
    makeFolder(own);
    writeAttributes(own, shown.attributes);
    makeLink(upFrom(path) + "bus/usb", own + "subsystem");
}

void Sysfs::makeDevice(const ShownDevice& device, const std::string& folder) {
    makeFolder(folder);
    writeAttributes(folder, fixedAttributes(device));
    writeAttributes(folder, configurationAttributes(device, device.configuration));
    const std::string up = upFrom(devicePath(device));
    makeLink(up + "bus/usb", folder + "subsystem");
    makeLink(up + "bus/usb/drivers/usb", folder + "driver");
    for (const ShownInterface& shown : interfacesOf(device, device.configuration)) {
        makeInterface(device, folder, shown);
    }
}

// Use the folder that the device had before.
bool Sysfs::unpark(const ShownDevice& device, const std::string& folder) {
    const auto parked = m_parked.find(device.name);
    if (parked == m_parked.end()) {
        return false;
    }
    ShownDevice wanted = device;
    wanted.address = 0;
    const bool same = parked->second == wanted;
    if (!same) {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
    m_parked.erase(parked);
    return same;
}

std::vector<std::string> Sysfs::interfaceNames(const ShownDevice& device) const {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(folderOf(device), ignored)) {
        std::string name = entry.path().filename();
        if (name.find(':') != std::string::npos) {
            names.push_back(std::move(name));
        }
    }
    return names;
}

struct stat Sysfs::show(const ShownDevice& device) {
    showBus(device.bus);
    // What a node contains when something reads it that the preload does not reach.
    const std::string node = m_root + nodePath(device.bus, device.address);
    writeFile(node, asText(device.descriptors), nodeMode);
    ::chmod(node.c_str(), nodeMode); // whatever the umask
    struct stat status {};
    if (::stat(node.c_str(), &status) != 0) {
        fail(node);
    }

    // The device appears with all its files at once.
    const std::string path = devicePath(device);
    const std::string parked = m_root + "/parked/" + device.name + "/";
    if (!unpark(device, parked)) {
        makeDevice(device, parked);
    }
    for (const auto& [name, content] : addressAttributes(device)) {
        writeFile(parked + name, content);
    }
    const std::string folder = folderOf(device);
    if (::rename(parked.c_str(), folder.c_str()) != 0) {
        fail(folder);
    }
    const std::string target = "../../.." + path + "/";
    for (const std::string& name : interfaceNames(device)) {
        ::unlink((folder + name + "/driver").c_str());
        makeLink(target + name, m_root + "/sys/bus/usb/devices/" + name);
    }
    makeLink("../.." + path, m_root + "/sys/dev/char/" + nodeNumber(device));
    makeLink("../../.." + path, m_root + "/sys/bus/usb/devices/" + device.name);
    return status;
}

void Sysfs::hideNode(const ShownDevice& device) {
    ::unlink((m_root + nodePath(device.bus, device.address)).c_str());
}

void Sysfs::hide(const ShownDevice& device) {
    ::unlink((m_root + "/sys/bus/usb/devices/" + device.name).c_str());
    ::unlink((m_root + "/sys/dev/char/" + nodeNumber(device)).c_str());
    for (const std::string& name : interfaceNames(device)) {
        ::unlink((m_root + "/sys/bus/usb/devices/" + name).c_str());
    }
    const std::string parked = m_root + "/parked/" + device.name;
    std::error_code ignored;
    const std::lock_guard lock(m_mutex);
    const bool shown = ::rename(folderOf(device).c_str(), parked.c_str()) == 0;
    if (!shown || m_configured.erase(device.name) != 0) {
        std::filesystem::remove_all(parked, ignored);
    } else {
        ShownDevice kept = device;
        kept.address = 0;
        m_parked.insert_or_assign(device.name, std::move(kept));
    }
}

// Another file, because the present one may be shared. It appears at once, as a whole.
void Sysfs::replaceFile(const ShownDevice& device, const char* name, const std::string& text) const {
    const std::string fresh = m_root + "/contents/" + device.name;
    {
        const FileDescriptor file(::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!file || ::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            return;
        }
    }
    ::rename(fresh.c_str(), (folderOf(device) + name).c_str());
}

void Sysfs::setPorts(const ShownDevice& hub, unsigned ports) const {
    replaceFile(hub, "maxchild", std::to_string(ports) + "\n");
}

void Sysfs::setConfiguration(const ShownDevice& device, std::uint8_t value) {
    const std::string folder = folderOf(device);
    const std::string links = m_root + "/sys/bus/usb/devices/";
    {
        const std::lock_guard lock(m_mutex);
        m_configured.insert(device.name);
    }
    for (const std::string& name : interfaceNames(device)) {
        std::error_code ignored;
        ::unlink((links + name).c_str());
        std::filesystem::remove_all(folder + name, ignored);
    }
    for (const auto& [name, content] : configurationAttributes(device, value)) {
        replaceFile(device, name.c_str(), content);
    }
    for (const ShownInterface& shown : interfacesOf(device, value)) {
        try {
            makeInterface(device, folder, shown);
            makeLink("../../.." + devicePath(device) + "/" + shown.name, links + shown.name);
        } catch (const std::system_error&) {
            return; // there is no room
        }
    }
}

void Sysfs::setDriver(const ShownDevice& device, std::uint8_t configuration, unsigned interfaceNumber,
                      const std::string& driver) const {
    const std::string path = devicePath(device) + "/" + interfaceName(device, configuration, interfaceNumber);
    const std::string link = m_root + "/sys" + path + "/driver";
    ::unlink(link.c_str());
    if (!driver.empty()) {
        const std::string target = "bus/usb/drivers/" + driver;
        ::mkdir((m_root + "/sys/" + target).c_str(), 0755);
        [[maybe_unused]] const int made = ::symlink((upFrom(path) + target).c_str(), link.c_str());
    }
}

} // namespace emulator
