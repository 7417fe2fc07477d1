// The versions of the library and of libusb.
#pragma once

#include <string>

// "gvusb 07.01.00 (libusb 1.0.26)"
std::string versions();
