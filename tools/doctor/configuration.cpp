#include "doctor/configuration.h"

#include "doctor/settings.h"
#include "printable_text.h"
#include "reader.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>

#include <gvusb.h>

namespace {

// The file that the library reads.
std::string configurationFile() {
    const char* const chosen = secure_getenv("GVUSB_CONFIG");
    return chosen == nullptr || *chosen == '\0' ? "/etc/gavo/gvusb.conf" : chosen;
}

// The library reads only this much of the file.
constexpr std::size_t bytesRead = 1023;

constexpr std::array<std::string_view, 6> keys = {
    "libusb_debuglevel=", "gvusb_debuglevel=", "gvusb_hotplug=",
    "gvusb_updaterate=",  "gvusb_parallel=",   "gvusb_logfile="};

// The keys in the text, with their values as written.
std::string settings(std::string_view text) {
    std::string found;
    for (const std::string_view key : keys) {
        const std::size_t position = text.find(key);
        if (position == std::string_view::npos) {
            continue;
        }
        const std::string_view rest = text.substr(position);
        found += (found.empty() ? "" : ", ") + printable(rest.substr(0, rest.find_first_of(" \t\r\n,;")));
    }
    if (text.find("nopnp") != std::string_view::npos) {
        found += (found.empty() ? "" : ", ") + std::string("nopnp");
    }
    return found.empty() ? "no settings" : found;
}

std::string hotPlugMode() {
    const std::string mode = readParameter("driver", GVUSB_DRIVER, "HOTPLUG-MODE");
    if (mode == "1") {
        return "hot-plug mode 1: the library polls";
    }
    if (mode == "2") {
        return "hot-plug mode 2: libusb reports while the application handles its events";
    }
    return "hot-plug mode " + mode + ": nothing is reported";
}

// What the library does with several readers.
std::string modes() {
    const bool parallel = readParameter("driver", GVUSB_DRIVER, "PARALLEL") == "1";
    return hotPlugMode() + "; " +
           (parallel ? "parallel mode: no reader waits for another"
                     : "not parallel: readers wait for each other");
}

} // namespace

void examineConfiguration(Findings& findings) {
    const std::string file = configurationFile();
    errno = 0;
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        if (errno == ENOENT || errno == ENOTDIR) {
            findings.ok("configuration", "no " + file + ", using the defaults; " + modes());
        } else {
            findings.problem("configuration",
                             file + " cannot be read: " + std::generic_category().message(errno),
                             {"Make it readable for everybody:", " sudo chmod a+r " + file});
        }
        return;
    }
    const std::string text(std::istreambuf_iterator<char>(stream), {});
    const std::string_view read = std::string_view(text).substr(0, bytesRead);
    findings.ok("configuration", file + ": " + settings(read) + "; " + modes());
    for (const SettingMistake& mistake : findSettingMistakes(read)) {
        findings.problem("configuration",
                         "line " + std::to_string(mistake.line) + ": " + printable(mistake.text),
                         {mistake.remedy});
    }
    if (text.size() > bytesRead) {
        findings.note("configuration", "the library reads only the first " + std::to_string(bytesRead) +
                                           " of the file's " + std::to_string(text.size()) + " bytes");
    }
}
