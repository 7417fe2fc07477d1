#include "command.h"

#include "hexadecimal.h"

namespace {

std::string refuseId(const std::string& text) {
    return "'" + text + "' is not a device ID, which has up to eight hexadecimal digits";
}

const CLI::Validator isTarget(
    [](std::string& text) {
        return text == "driver" || parseDeviceId(text) ? std::string{} : refuseId(text) + ", nor 'driver'";
    },
    "");

} // namespace

const CLI::Validator
    isDeviceId([](std::string& text) { return parseDeviceId(text) ? std::string{} : refuseId(text); }, "");

void addReaderArgument(CLI::App& command, std::string& id) {
    command.add_option("ID", id, "Device ID in hexadecimal, as 'gvusb list' shows it")
        ->required()
        ->type_name("")
        ->check(isDeviceId);
}

void addTargetArgument(CLI::App& command, std::string& target) {
    command.add_option("ID", target, "Device ID in hexadecimal, or 'driver' for the library itself")
        ->required()
        ->type_name("")
        ->check(isTarget);
}

unsigned int checkedId(const std::string& text) {
    return parseDeviceId(text).value_or(0);
}
