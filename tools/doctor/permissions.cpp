#include "doctor/permissions.h"

#include <array>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace {

// The path of the installed rule, or an empty string if no folder of udev's has it.
std::string installedRule() {
    for (const char* folder : {"/etc/udev/rules.d", "/run/udev/rules.d", "/usr/local/lib/udev/rules.d",
                               "/usr/lib/udev/rules.d", "/lib/udev/rules.d"}) {
        const std::filesystem::path file = std::filesystem::path(folder) / "70-gvusb.rules";
        std::error_code ignored;
        if (std::filesystem::exists(file, ignored)) {
            return file.string();
        }
    }
    return {};
}

} // namespace

std::string vendorText() {
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "%04x", static_cast<unsigned int>(GVUSB_VENDOR_ID));
    return text.data();
}

std::vector<std::string> permissionRemedy() {
    const std::string vendor = vendorText();
    const std::string trigger =
        " sudo udevadm control --reload && sudo udevadm trigger --action=add --attr-match=idVendor=" + vendor;
    if (const std::string rule = installedRule(); !rule.empty()) {
        return {rule + " grants access to the user at the machine and to members of the group plugdev. It "
                       "takes effect when a reader is plugged in: plug it in again, or run:",
                trigger, "To use readers over the network or in a service, join the group and log in again:",
                " sudo usermod --append --groups plugdev USER"};
    }
    return {"Put this line into /etc/udev/rules.d/70-gvusb.rules:",
            " ACTION!=\"remove\", SUBSYSTEM==\"usb\", ENV{DEVTYPE}==\"usb_device\", ATTR{idVendor}==\"" +
                vendor +
                "\", ATTR{idProduct}==\"000[1-4]\", MODE=\"0660\", GROUP=\"plugdev\", TAG+=\"uaccess\"",
            "It grants access to the user at the machine and to members of the group plugdev. Then plug the "
            "reader in again, or run:",
            trigger};
}
