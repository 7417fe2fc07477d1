#include "doctor/udev.h"

#include <cstdlib>

#include <unistd.h>

namespace {

// udev's daemon listens there. libudev, and so libusb, looks for the same file before it subscribes to events.
constexpr const char* udevSocket = "/run/udev/control";

// The launcher of virtual readers tells its programs by the first where it listens. It sends udev's events itself, unless
// it serves the readers to Linux's own USB stack, which the second tells.
constexpr const char* virtualReaders = "GVUSB_EMULATE_SOCKET";
constexpr const char* servedByUsbip = "GVUSB_EMULATE_USBIP";

} // namespace

void examineUdev(Findings& findings) {
    if (::access(udevSocket, F_OK) == 0) {
        findings.ok("udev", "running");
        return;
    }
    if (std::getenv(virtualReaders) != nullptr && std::getenv(servedByUsbip) == nullptr) {
        findings.note("udev", "not running; the virtual readers that gvusb-emulate made here need none");
        return;
    }
    findings.problem(
        "udev", "not running, so plugging and unplugging is never noticed",
        {"Start it:", " sudo systemctl start systemd-udevd",
         "In a container, where it cannot be started, run the program outside, or start it anew after each "
         "plug: the readers that are there when it starts are found."});
}
