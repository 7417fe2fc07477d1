// The udev rule that lets users open readers, which it knows by their vendor ID.
#pragma once

#include <string>
#include <vector>

// The USB vendor ID of the readers: four hexadecimal digits, as lsusb and udev write it.
std::string vendorText();

// How to get write access to the device nodes of readers. For Findings::problem().
std::vector<std::string> permissionRemedy();
