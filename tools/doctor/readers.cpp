#include "doctor/readers.h"

#include "base/owner.h"
#include "base/reader_facts.h"
#include "base/usb_owners.h"
#include "doctor/node_users.h"
#include "doctor/permissions.h"
#include "explanations.h"
#include "hexadecimal.h"
#include "printable_text.h"

#include <array>
#include <cstdio>
#include <map>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <gvusb.h>
#include <libusb.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

using Context = Owner<libusb_context, libusb_exit>;

std::string formatted(const char* format, unsigned int first, unsigned int second = 0) {
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), format, first, second);
    return text.data();
}

std::string errorText(int code) {
    return libusb_strerror(static_cast<libusb_error>(code));
}

// The topics of the readers with each device ID.
using Identified = std::map<unsigned int, std::vector<std::string>>;

// The texts without which the library does not list a reader.
constexpr std::array<std::pair<StringIndex, const char*>, 3> neededTexts = {
    {{StringIndex::familyName, "family name"},
     {StringIndex::deviceName, "device name"},
     {StringIndex::interfaceType, "interface type"}}};

// The examination of one reader.
class Examination {
public:
    Examination(libusb_device* device, Findings& findings)
        : m_device(device)
        , m_findings(findings)
        , m_topic(
              formatted("bus %u device %u", libusb_get_bus_number(device), libusb_get_device_address(device)))
        , m_node(formatted("/dev/bus/usb/%03u/%03u", libusb_get_bus_number(device),
                           libusb_get_device_address(device))) {}

    void run(Identified& identified) {
        libusb_device_handle* opened = nullptr;
        const int code = libusb_open(m_device, &opened);
        const DeviceHandle handle(opened);
        if (code == LIBUSB_ERROR_ACCESS) {
            m_findings.problem(m_topic, "this user may not write to " + m_node, permissionRemedy());
            return;
        }
        if (code != LIBUSB_SUCCESS) {
            m_findings.problem(
                m_topic, m_node + " cannot be opened: " + errorText(code),
                {"Unplug the reader and plug it in again. A container also needs the node: share "
                 "/dev/bus/usb with it."});
            return;
        }
        const std::optional<unsigned int> id = deviceId(handle.get());
        if (!id) {
            m_findings.problem(m_topic,
                               "the device ID is missing or not hexadecimal, so no scan finds the reader",
                               {std::string(findExplanation(GVUSB_ERR_DEVICE_DESCRIPTOR_READ)->remedy)});
            return;
        }
        m_title = "reader " + deviceIdText(*id) + " (" + m_node + ")";
        if (!hasNeededTexts(handle.get())) {
            return;
        }
        identified[*id].push_back(m_topic);
        const std::string driver = boundDriver();
        if (driver.empty()) {
            m_findings.ok(m_topic, m_title);
        } else if (driver == "usbfs") {
            reportClaim();
        } else {
            reportKernelDriver(driver);
        }
    }

private:
    static std::optional<std::string> readString(libusb_device_handle* handle, StringIndex index) {
        std::array<char, 256> text{};
        const int length = libusb_get_string_descriptor_ascii(handle, static_cast<std::uint8_t>(index),
                                                              reinterpret_cast<unsigned char*>(text.data()),
                                                              static_cast<int>(text.size()) - 1);
        return length < 0 ? std::nullopt : std::optional<std::string>(text.data());
    }

    // As the library reads it: the hexadecimal number at the start of string 1.
    static std::optional<unsigned int> deviceId(libusb_device_handle* handle) {
        unsigned int id = 0;
        const std::string text = readString(handle, StringIndex::deviceId).value_or("");
        return std::sscanf(text.c_str(), "%x", &id) == 1 ? std::optional(id) : std::nullopt;
    }

    bool hasNeededTexts(libusb_device_handle* handle) {
        std::string missing;
        for (const auto& [index, name] : neededTexts) {
            if (!readString(handle, index)) {
                missing += (missing.empty() ? "" : ", ") + std::string(name) + " (string " +
                           std::to_string(static_cast<int>(index)) + ")";
            }
        }
        if (!missing.empty()) {
            m_findings.problem(m_topic,
                               m_title + ": cannot be read: " + missing + "; so no scan finds the reader",
                               {std::string(findExplanation(GVUSB_ERR_STRING_DESCRIPTOR_READ)->remedy) +
                                " If the text is still missing, the reader's firmware lacks it."});
            return false;
        }
        if (!readString(handle, StringIndex::typeNumber)) {
            m_findings.note(
                m_topic,
                m_title + ": its type number (string " +
                    std::to_string(static_cast<int>(StringIndex::typeNumber)) + ") cannot be read",
                {"A program that reads the parameter TYPENUMBER gets " +
                 std::to_string(GVUSB_ERR_STRING_DESCRIPTOR_READ) + ". Everything else works without it."});
        }
        return true;
    }

    // The owner of interface 0: the name of a kernel driver, "usbfs" for a program, or an empty string.
    std::string boundDriver() const {
        const int descriptor = ::open(m_node.c_str(), O_RDWR | O_CLOEXEC);
        usbdevfs_getdriver request = {};
        const bool isBound = descriptor >= 0 && ::ioctl(descriptor, USBDEVFS_GETDRIVER, &request) == 0;
        ::close(descriptor);
        return isBound ? request.driver : std::string{};
    }

    void reportClaim() {
        std::string programs;
        std::string processes;
        for (const NodeUser& user : findNodeUsers(m_node)) {
            const std::string process = std::to_string(user.process);
            programs +=
                (programs.empty() ? "" : " or ") + printable(user.name) + " (process " + process + ")";
            processes += " " + process;
        }
        std::vector<std::string> remedy;
        if (programs.empty()) {
            programs = "another program";
            remedy = {"Run 'gvusb doctor' as root to see which program it is."};
        } else {
            remedy = {"Have the program close the reader, or end it:", " kill" + processes};
        }
        m_findings.problem(m_topic,
                           m_title + ": interface 0 is claimed by " + programs +
                               ", so no other program can exchange frames with the reader",
                           remedy);
    }

    // The library detaches the driver at the first exchange. Before that it switches to configuration 1,
    // which the driver prevents if another configuration is active.
    void reportKernelDriver(const std::string& name) {
        libusb_config_descriptor* first = nullptr;
        const bool isKnown = libusb_get_config_descriptor(m_device, 0, &first) == LIBUSB_SUCCESS;
        const ConfigDescriptor owner(first);
        const std::string found =
            m_title + ": the kernel driver " + printable(name) + " is bound to interface 0";
        if (isKnown && first->bConfigurationValue == 1) {
            m_findings.note(m_topic, found + "; the library detaches it at the first exchange");
            return;
        }
        m_findings.problem(
            m_topic, found + ", so the reader cannot be switched to configuration 1",
            {"Unbind the driver. A udev rule does so permanently; until the reader is plugged in again, run:",
             " echo INTERFACE | sudo tee /sys/bus/usb/drivers/" + printable(name) + "/unbind",
             "INTERFACE is the name in that folder that belongs to " + m_topic + ", such as 1-2:1.0."});
    }

    libusb_device* m_device;
    Findings& m_findings;
    std::string m_topic;
    std::string m_node;
    std::string m_title;
};

void reportSharedIds(const Identified& identified, Findings& findings) {
    for (const auto& [id, topics] : identified) {
        if (topics.size() < 2) {
            continue;
        }
        std::string places;
        for (const std::string& topic : topics) {
            places += (places.empty() ? "" : ", ") + topic;
        }
        findings.problem(
            "readers",
            std::to_string(topics.size()) + " readers have the device ID " + deviceIdText(id) + " (" +
                places + "), so a program that opens a reader by this ID gets the first one",
            {"Give every reader a device ID of its own, or plug in only one of these at a time. Commands of "
             "this tool also take the USB path that 'gvusb list' shows."});
    }
}

void reportNoReader(Findings& findings) {
    findings.problem("readers", "no reader (USB vendor " + vendorText() + ") is on the bus",
                     {"Plug one in. If it is plugged in, check whether the kernel sees it:",
                      " lsusb -d " + vendorText() + ":",
                      "If not, try another cable and another port. Pass the device through to a virtual "
                      "machine; share /dev/bus/usb with a container."});
}

} // namespace

void examineReaders(Findings& findings) {
    libusb_context* initialized = nullptr;
    if (const int code = libusb_init(&initialized); code != LIBUSB_SUCCESS) {
        findings.problem("libusb", errorText(code),
                         {"Check that /dev/bus/usb and /sys/bus/usb exist, and that the limit of open files "
                          "(ulimit -n) is not reached."});
        return;
    }
    const Context context(initialized);
    const UsbDeviceList devices(true, context.get());
    int readers = 0;
    Identified identified;
    for (libusb_device* const device : devices.devices()) {
        libusb_device_descriptor descriptor = {};
        libusb_get_device_descriptor(device, &descriptor);
        if (descriptor.idVendor != GVUSB_VENDOR_ID) {
            continue;
        }
        if (!isReaderProduct(descriptor.idProduct)) {
            findings.note(
                "devices",
                formatted("%04x:%04x", descriptor.idVendor, descriptor.idProduct) +
                    " has the vendor ID of the readers, but is not a product that the library knows",
                {formatted("The library uses products %u to %u. If this device is a reader, install a "
                           "version of the library that knows it.",
                           lowestReaderProduct, highestReaderProduct)});
            continue;
        }
        ++readers;
        Examination(device, findings).run(identified);
    }
    reportSharedIds(identified, findings);
    if (readers == 0) {
        reportNoReader(findings);
    }
}
