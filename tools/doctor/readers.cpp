#include "doctor/readers.h"

#include "commands/explanations.h"
#include "doctor/node_users.h"
#include "failure.h"
#include "hexadecimal.h"
#include "table.h"

#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <gvusb.h>
#include <libusb.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr std::uint16_t lowestProduct = 1;
constexpr std::uint16_t highestProduct = 4;

template <auto release>
struct Releaser {
    template <class Object>
    void operator()(Object* object) const {
        release(object);
    }
};
using Context = std::unique_ptr<libusb_context, Releaser<libusb_exit>>;
using Handle = std::unique_ptr<libusb_device_handle, Releaser<libusb_close>>;

std::string formatted(const char* format, unsigned int first, unsigned int second = 0) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), format, first, second);
    return text.data();
}

std::string vendorText() {
    return formatted("%04x", GVUSB_VENDOR_ID);
}

// The rule that lets users open readers, wherever udev reads it from; empty when it is nowhere.
std::string installedRule() {
    for (const char* folder : {"/etc/udev/rules.d", "/run/udev/rules.d", "/usr/local/lib/udev/rules.d",
                               "/usr/lib/udev/rules.d", "/lib/udev/rules.d"}) {
        const std::filesystem::path file = std::filesystem::path(folder) / "70-gvusb.rules";
        std::error_code ignored;
        if (std::filesystem::exists(file, ignored))
            return file.string();
    }
    return {};
}

// One device of the vendor's.
class Examination {
public:
    Examination(libusb_device* device, Findings& findings)
        : device_(device)
        , findings_(findings)
        , topic_(
              formatted("bus %u device %u", libusb_get_bus_number(device), libusb_get_device_address(device)))
        , node_(formatted("/dev/bus/usb/%03u/%03u", libusb_get_bus_number(device),
                          libusb_get_device_address(device))) {}

    void run() {
        libusb_device_handle* opened = nullptr;
        const int code = libusb_open(device_, &opened);
        const Handle handle(opened);
        if (code == LIBUSB_ERROR_ACCESS) {
            findings_.problem(topic_, "this user may not write to " + node_, accessRemedy());
            return;
        }
        if (code != LIBUSB_SUCCESS) {
            findings_.problem(
                topic_, node_ + " cannot be opened: " + libusb_strerror(static_cast<libusb_error>(code)),
                {"Unplug the reader and plug it in again. In a container, the node has to be "
                 "there too: share /dev/bus/usb with it."});
            return;
        }
        const std::optional<unsigned int> id = deviceId(handle.get());
        if (!id) {
            findings_.problem(topic_, "the reader does not tell a device ID, so no scan finds it",
                              {std::string(findExplanation(GVUSB_ERR_DEVICE_DESCRIPTOR_READ)->remedy)});
            return;
        }
        title_ = "reader " + deviceIdText(*id) + " (" + node_ + ")";
        if (!examineDriver())
            findings_.ok(topic_, title_);
    }

private:
    static std::vector<std::string> accessRemedy() {
        const std::string vendor = vendorText();
        const std::string trigger =
            " sudo udevadm control --reload && sudo udevadm trigger --action=add --attr-match=idVendor=" +
            vendor;
        if (const std::string rule = installedRule(); !rule.empty())
            return {
                rule +
                    " admits who sits at the machine and the members of the group plugdev. It applies when a "
                    "reader is plugged in: do that again, or:",
                trigger, "To use readers over the network or in a service, join the group and log in again:",
                " sudo usermod --append --groups plugdev USER"};
        return {"Put this line into /etc/udev/rules.d/70-gvusb.rules:",
                " ACTION!=\"remove\", SUBSYSTEM==\"usb\", ENV{DEVTYPE}==\"usb_device\", ATTR{idVendor}==\"" +
                    vendor +
                    "\", ATTR{idProduct}==\"000[1-4]\", MODE=\"0660\", GROUP=\"plugdev\", TAG+=\"uaccess\"",
                "It admits who sits at the machine and the members of the group plugdev. Then unplug the "
                "reader and plug it in again, or:",
                trigger};
    }

    // As the library reads it: a hexadecimal number at the beginning of string 1.
    static std::optional<unsigned int> deviceId(libusb_device_handle* handle) {
        constexpr std::uint8_t idString = 1;
        std::array<char, 256> text{};
        if (libusb_get_string_descriptor_ascii(handle, idString,
                                               reinterpret_cast<unsigned char*>(text.data()),
                                               static_cast<int>(text.size()) - 1) <= 0)
            return std::nullopt;
        unsigned int id = 0;
        return std::sscanf(text.data(), "%x", &id) == 1 ? std::optional(id) : std::nullopt;
    }

    // What has interface 0: a kernel driver's name, "usbfs" for a program, nothing.
    std::string driver() const {
        const int descriptor = ::open(node_.c_str(), O_RDWR | O_CLOEXEC);
        usbdevfs_getdriver request = {};
        const bool isBound = descriptor >= 0 && ::ioctl(descriptor, USBDEVFS_GETDRIVER, &request) == 0;
        ::close(descriptor);
        return isBound ? request.driver : std::string{};
    }

    // True when it has told something.
    bool examineDriver() {
        const std::string name = driver();
        if (name.empty())
            return false;
        if (name == "usbfs")
            reportClaim();
        else
            reportKernelDriver(name);
        return true;
    }

    void reportClaim() {
        std::string who;
        std::string ends;
        for (const NodeUser& user : findNodeUsers(node_)) {
            const std::string process = std::to_string(user.process);
            who += (who.empty() ? "" : " or ") + printable(user.name) + " (process " + process + ")";
            ends += " " + process;
        }
        std::vector<std::string> remedy;
        if (who.empty()) {
            who = "another program";
            remedy.push_back("Run 'gvusb doctor' as root to see which program it is.");
        } else {
            remedy = {"Let it close the reader, or end it:", " kill" + ends};
        }
        findings_.problem(
            topic_, title_ + ": interface 0 is claimed by " + who + ", so it cannot be talked to", remedy);
    }

    // The library opens configuration 1 and takes the interface from the driver at the first exchange. Only
    // where it has to switch to that configuration is the driver in its way.
    void reportKernelDriver(const std::string& name) {
        libusb_config_descriptor* first = nullptr;
        const bool isKnown = libusb_get_config_descriptor(device_, 0, &first) == LIBUSB_SUCCESS;
        const std::unique_ptr<libusb_config_descriptor, Releaser<libusb_free_config_descriptor>> owner(first);
        const std::string found =
            title_ + ": the kernel driver " + printable(name) + " is bound to interface 0";
        if (isKnown && first->bConfigurationValue == 1) {
            findings_.note(topic_, found + "; the library takes the interface from it at the first exchange");
            return;
        }
        findings_.problem(
            topic_, found + ", so the reader cannot be switched to configuration 1",
            {"Keep the driver away from it, for good by a udev rule; until the next plug by:",
             " echo INTERFACE | sudo tee /sys/bus/usb/drivers/" + printable(name) + "/unbind",
             "where INTERFACE is the name in that folder that belongs to " + topic_ + ", such as 1-2:1.0."});
    }

    libusb_device* device_;
    Findings& findings_;
    std::string topic_;
    std::string node_;
    std::string title_;
};

void reportNoReader(Findings& findings) {
    findings.problem("readers", "no reader (USB vendor " + vendorText() + ") is on the bus",
                     {"Plug one in. If it is plugged in, see whether the kernel knows it:",
                      " lsusb -d " + vendorText() + ":",
                      "If not, try another cable and another port. A virtual machine has to be given the "
                      "device, a container the folder /dev/bus/usb."});
}

} // namespace

void examineReaders(Findings& findings) {
    libusb_context* initialised = nullptr;
    if (const int code = libusb_init(&initialised); code != LIBUSB_SUCCESS) {
        findings.problem(
            "libusb", libusb_strerror(static_cast<libusb_error>(code)),
            {"See whether /dev/bus/usb and /sys/bus/usb are there, and whether the limit of open "
             "files (ulimit -n) is reached."});
        return;
    }
    const Context context(initialised);
    libusb_device** devices = nullptr;
    const ssize_t count = libusb_get_device_list(context.get(), &devices);
    int readers = 0;
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor descriptor = {};
        libusb_get_device_descriptor(devices[i], &descriptor);
        if (descriptor.idVendor != GVUSB_VENDOR_ID)
            continue;
        if (descriptor.idProduct < lowestProduct || descriptor.idProduct > highestProduct) {
            findings.note("devices", formatted("%04x:%04x is of the vendor, but none of the readers that the "
                                               "library knows",
                                               descriptor.idVendor, descriptor.idProduct));
            continue;
        }
        ++readers;
        Examination(devices[i], findings).run();
    }
    libusb_free_device_list(devices, 1);
    if (readers == 0)
        reportNoReader(findings);
}
