#include "fleet/service/log.h"

#include <cstdio>
#include <cstdlib>

#include <systemd/sd-daemon.h>

namespace {

// The journal reads the level from the beginning of the line. In a terminal it would only be in the way.
bool goesToJournal() {
    static const bool result = std::getenv("JOURNAL_STREAM") != nullptr; // NOLINT(concurrency-mt-unsafe)
    return result;
}

void write(const char* level, const char* word, const std::string& text) {
    if (goesToJournal()) {
        std::fprintf(stderr, "%s%s\n", level, text.c_str());
    } else {
        std::fprintf(stderr, "gvusb-mqtt: %s%s\n", word, text.c_str());
    }
}

} // namespace

void service_log::error(const std::string& text) {
    write(SD_ERR, "error: ", text);
}

void service_log::warning(const std::string& text) {
    write(SD_WARNING, "warning: ", text);
}

void service_log::notice(const std::string& text) {
    write(SD_NOTICE, "", text);
}

void service_log::info(const std::string& text) {
    write(SD_INFO, "", text);
}
