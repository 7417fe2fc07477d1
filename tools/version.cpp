#include "version.h"

#include <gvusb.h>
#include <libusb.h>

std::string versions() {
    const libusb_version* const libusb = libusb_get_version();
    return "gvusb " + std::string(GVUSB_GetDLLVersion()) + " (libusb " + std::to_string(libusb->major) + "." +
           std::to_string(libusb->minor) + "." + std::to_string(libusb->micro) + ")";
}
