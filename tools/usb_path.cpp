#include "usb_path.h"

#include <regex>

bool isUsbPath(std::string_view text) {
    static const std::regex form("usb:[0-9]{1,3}-[0-9]{1,3}(\\.[0-9]{1,3}){0,6}");
    return std::regex_match(text.begin(), text.end(), form);
}
