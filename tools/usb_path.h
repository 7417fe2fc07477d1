// Ports of the USB as the tool names them.
#pragma once

#include <string_view>

// Whether the text has the form of a path such as "usb:1-2.3": bus 1, port 3 of the hub at port 2.
bool isUsbPath(std::string_view text);
