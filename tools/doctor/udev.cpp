#include "doctor/udev.h"

#include <cstdlib>

#include <unistd.h>

namespace {

// The socket of udev's daemon. libudev, and so libusb, checks for the same file before it subscribes to
// events.
constexpr const char* udevSocket = "/run/udev/control";

// The launcher of virtual readers sets the first variable for its programs and sends udev's events itself. It
// also sets the second if it serves the readers to the USB stack of Linux, and then sends none.
constexpr const char* virtualReaders = "GVUSB_EMULATE_SOCKET";
constexpr const char* servedByUsbip = "GVUSB_EMULATE_USBIP";

} // namespace

void examineUdev(Findings& findings) {
    if (::access(udevSocket, F_OK) == 0) {
        findings.ok("udev", "running");
        return;
    }
    if (std::getenv(virtualReaders) != nullptr && std::getenv(servedByUsbip) == nullptr) {
        findings.note("udev", "not running; the virtual readers of gvusb-emulate do not need it");
        return;
    }
    findings.problem(
        "udev", "not running, so plugging and unplugging is not noticed",
        {"Start it:", " sudo systemctl start systemd-udevd",
         "In a container, where udev cannot be started, run the program outside the container, or "
         "restart it after each change: it finds the readers that are present when it starts."});
}
