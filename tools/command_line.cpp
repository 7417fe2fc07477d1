#include "command_line.h"

#include "hexadecimal.h"

const CLI::Validator
    isDeviceId([](std::string& text) { return parseDeviceId(text) ? std::string{} : notADeviceId(text); },
               "");

std::string notADeviceId(const std::string& text) {
    return "'" + text + "' is not a device ID (1 to 8 hexadecimal digits)";
}

std::string joinSections(std::initializer_list<std::string_view> sections) {
    std::string text;
    for (const std::string_view section : sections) {
        text += section;
    }
    return text.substr(1);
}
