#include "doctor/configuration.h"

#include "reader.h"
#include "table.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>

#include <gvusb.h>
#include <libusb.h>
#include <unistd.h>

namespace {

constexpr const char* configurationFile = "/etc/gavo/gvusb.conf";

// udev's daemon listens there. libudev, and so libusb, looks for the same file before it subscribes to events.
constexpr const char* udevSocket = "/run/udev/control";

// The launcher of virtual readers tells its programs by the first where it listens. It sends udev's events itself, unless
// it serves the readers to Linux's own USB stack, which the second tells.
constexpr const char* virtualReaders = "GVUSB_EMULATE_SOCKET";
constexpr const char* servedByUsbip = "GVUSB_EMULATE_USBIP";

// The library reads no more of the file.
constexpr std::size_t bytesRead = 1023;

constexpr std::array<std::string_view, 4> keys = {
    "libusb_debuglevel=", "gvusb_debuglevel=", "gvusb_hotplug=", "gvusb_updaterate="};

// The keys that the text has, with their values as they stand there.
std::string settings(std::string_view text) {
    std::string found;
    for (const std::string_view key : keys) {
        const std::size_t position = text.find(key);
        if (position == std::string_view::npos)
            continue;
        const std::string_view rest = text.substr(position);
        found += (found.empty() ? "" : ", ") + printable(rest.substr(0, rest.find_first_of(" \t\r\n,;")));
    }
    if (text.find("nopnp") != std::string_view::npos)
        found += (found.empty() ? "" : ", ") + std::string("nopnp");
    return found.empty() ? "no settings" : found;
}

std::string modeInWords() {
    const std::string mode = readParameter("driver", GVUSB_DRIVER, "HOTPLUG-MODE");
    if (mode == "1")
        return "hot-plug mode 1: the library polls";
    if (mode == "2")
        return "hot-plug mode 2: libusb reports, while the application handles libusb's events";
    return "hot-plug mode " + mode + ": nothing is reported";
}

} // namespace

std::string versions() {
    const libusb_version* const libusb = libusb_get_version();
    return "gvusb " + std::string(GVUSB_GetDLLVersion()) + " (libusb " + std::to_string(libusb->major) + "." +
           std::to_string(libusb->minor) + "." + std::to_string(libusb->micro) + ")";
}

void examineLibrary(Findings& findings) {
    findings.ok("library", versions());
}

void examineConfiguration(Findings& findings) {
    errno = 0;
    std::ifstream stream(configurationFile, std::ios::binary);
    if (!stream) {
        if (errno == ENOENT || errno == ENOTDIR)
            findings.ok("configuration",
                        std::string("no ") + configurationFile + ", so defaults hold; " + modeInWords());
        else
            findings.problem("configuration",
                             std::string(configurationFile) +
                                 " cannot be read: " + std::generic_category().message(errno),
                             {"Let everybody read it:", std::string(" sudo chmod a+r ") + configurationFile});
        return;
    }
    const std::string text(std::istreambuf_iterator<char>(stream), {});
    findings.ok("configuration", std::string(configurationFile) + ": " +
                                     settings(std::string_view(text).substr(0, bytesRead)) + "; " +
                                     modeInWords());
    if (text.size() > bytesRead)
        findings.note("configuration", "only the first " + std::to_string(bytesRead) + " of its " +
                                           std::to_string(text.size()) + " bytes are read");
}

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
