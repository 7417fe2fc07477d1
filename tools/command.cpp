#include "command.h"

#include "hexadecimal.h"
#include "usb_path.h"

namespace {

std::string notAReader(const std::string& text) {
    return notADeviceId(text) + " or a USB path such as usb:1-2.3";
}

const CLI::Validator isTarget(
    [](std::string& text) {
        return text == "driver" || isUsbPath(text) || parseDeviceId(text) ? std::string{}
                                                                          : notAReader(text) + " or 'driver'";
    },
    "");

} // namespace

const CLI::Validator isReader(
    [](std::string& text) {
        return isUsbPath(text) || parseDeviceId(text) ? std::string{} : notAReader(text);
    },
    "");

void addReaderArgument(CLI::App& command, std::string& id) {
    command.add_option("ID", id, "Device ID or USB path, as shown by 'gvusb list'")
        ->required()
        ->type_name("")
        ->check(isReader);
}

void addTargetArgument(CLI::App& command, std::string& target) {
    command.add_option("ID", target, "Device ID, USB path, or 'driver' for the library itself")
        ->required()
        ->type_name("")
        ->check(isTarget);
}
