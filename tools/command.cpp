#include "command.h"

#include "hexadecimal.h"

namespace {

std::string notADeviceId(const std::string& text) {
    return "'" + text + "' is not a device ID (1 to 8 hexadecimal digits)";
}

const CLI::Validator isTarget(
    [](std::string& text) {
        return text == "driver" || parseDeviceId(text) ? std::string{} : notADeviceId(text) + " or 'driver'";
    },
    "");

} // namespace

const CLI::Validator
    isDeviceId([](std::string& text) { return parseDeviceId(text) ? std::string{} : notADeviceId(text); },
               "");

void addReaderArgument(CLI::App& command, std::string& id) {
    command.add_option("ID", id, "Device ID in hexadecimal, as shown by 'gvusb list'")
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

std::string joinSections(std::initializer_list<std::string_view> sections) {
    std::string text;
    for (const std::string_view section : sections) {
        text += section;
    }
    return text.substr(1);
}
