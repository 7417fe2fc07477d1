// The files of USB devices below the root of the emulated bus: in /sys, and their nodes' places in /dev.
//
// For the launcher's thread only, except where said.
#pragma once

#include "model/description.h"

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/stat.h>

namespace emulator {

struct ShownDevice {
    std::string name; // in /sys/bus/usb/devices
    std::uint8_t bus = 1;
    std::uint8_t address = 0;
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::uint16_t release = 0;
    Speed speed = Speed::full;
    std::uint8_t configuration = 0;
    Bytes descriptors; // of the device, then of each configuration
};

// Each bus has the root hub of its host controller, as in the kernel.
constexpr std::uint8_t rootHubAddress = 1;
std::string rootHubName(std::uint8_t bus);
ReaderDescription rootHub(std::uint8_t bus);

// A device that has just been plugged in, with its descriptors as programs read them.
ShownDevice shownDevice(std::string name, const ReaderDescription& description, std::uint8_t bus,
                        std::uint8_t address);

// The permissions of a node.
constexpr unsigned nodeMode = 0664;

// The node of the device with this address, as programs see it.
std::string nodePath(std::uint8_t bus, std::uint8_t address);

class Sysfs {
public:
    // Create the folders for which libusb looks even if there is no device. Throws std::system_error.
    explicit Sysfs(std::string root);

    // Returns the properties of the file in the node's place. Throws std::system_error.
    struct stat show(const ShownDevice& device);

    // As the kernel does it: the node first, and everything else after the event.
    void hideNode(const ShownDevice& device);
    void hide(const ShownDevice& device);

    // Any thread.
    void setConfiguration(const std::string& name, std::uint8_t value) const;

private:
    void writeShared(const std::string& path, const std::string& content);

    std::string m_root;
    std::map<std::string, std::string>
        m_contents;            // of files that many devices have in common, and one such file
    std::vector<bool> m_buses; // that have a folder of nodes
};

// The names and values that describe a device in its file "uevent" and in udev events.
using Properties = std::vector<std::pair<std::string_view, std::string>>;
Properties propertiesOf(const ShownDevice& device);

} // namespace emulator
