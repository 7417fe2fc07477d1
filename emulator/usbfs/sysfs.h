// The files of USB devices below the root of the emulated bus: in /sys, and their nodes' places in /dev.
//
// For the launcher's thread only, except where said.
#pragma once

#include "model/description.h"
#include "usbfs/attributes.h"

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

namespace emulator {

// Each bus has the root hub of its host controller, as in the kernel.
constexpr std::uint8_t rootHubAddress = 1;
ReaderDescription rootHub(std::uint8_t bus);

// A device that has just been plugged in, with its descriptors as programs read them.
ShownDevice shownDevice(std::string name, const ReaderDescription& description, std::uint8_t bus,
                        std::uint8_t address, unsigned port);

// The permissions of a node.
constexpr unsigned nodeMode = 0664;

class Sysfs {
public:
    // Create the folders for which libusb looks even if there is no device. Throws std::system_error.
    explicit Sysfs(std::string root);

    // Returns the properties of the file in the node's place. Throws std::system_error.
    struct stat show(const ShownDevice& device);

    // As the kernel does it: the node first, and everything else after the event.
    void hideNode(const ShownDevice& device);
    void hide(const ShownDevice& device);

    void setPorts(const ShownDevice& hub, unsigned ports) const;

    // Both for any thread, while the device is shown.
    void setConfiguration(const ShownDevice& device, std::uint8_t value);
    void setDriver(const ShownDevice& device, std::uint8_t configuration, unsigned interfaceNumber,
                   const std::string& driver) const; // "": none

private:
    void showBus(std::uint8_t bus);
    void writeAttributes(const std::string& folder, const Attributes& attributes);
    void writeShared(const std::string& path, const std::string& content);
    void replaceFile(const ShownDevice& device, const char* name, const std::string& text) const;
    void makeDevice(const ShownDevice& device, const std::string& folder);
    void makeInterface(const ShownDevice& device, const std::string& folder, const ShownInterface& shown);
    bool unpark(const ShownDevice& device, const std::string& folder);
    std::vector<std::string> interfaceNames(const ShownDevice& device) const;
    std::string folderOf(const ShownDevice& device) const;

    std::string m_root;
    std::vector<bool> m_buses; // that have a folder of nodes and a controller

    // The folders of unplugged devices. Most readers return as they were; theirs is used again.
    std::map<std::string, ShownDevice> m_parked; // by name, with address 0

    std::mutex m_mutex; // for the following
    std::map<std::string, std::string>
        m_contents;                     // of files that many devices have in common, and one such file
    std::set<std::string> m_configured; // devices in another configuration than when they were plugged in
};

} // namespace emulator
