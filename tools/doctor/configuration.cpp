#include "doctor/configuration.h"

#include "reader.h"
#include "table.h"

#include <array>
#include <cerrno>
#include <fstream>
#include <system_error>

#include <gvusb.h>

namespace {

constexpr const char* configurationFile = "/etc/gavo/gvusb.conf";

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
