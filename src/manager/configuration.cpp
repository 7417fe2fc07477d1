#include "manager/configuration.h"

#include "base/numbers.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Return the text after the first occurrence of a key, or null.
const char* valueOf(std::string_view key, const char* text) {
    const char* const found = std::strstr(text, key.data());
    return found == nullptr ? nullptr : found + key.size();
}

void readNumber(std::string_view key, const char* text, int& setting) {
    if (const char* value = valueOf(key, text)) {
        setting = leadingNumber<int>(value).value_or(setting);
    }
}

// Copy the value up to the end of its line.
void readLine(std::string_view key, const char* text, char (&setting)[configurationSize + 1]) {
    if (const char* value = valueOf(key, text)) {
        const std::size_t length = std::min(std::strcspn(value, "\r\n"), configurationSize);
        std::memcpy(setting, value, length);
        setting[length] = '\0';
    }
}

unsigned int microseconds(int milliseconds) {
    constexpr int shortest = 10;
    constexpr unsigned int longest = std::numeric_limits<unsigned int>::max();
    const auto wanted = static_cast<unsigned int>(std::max(milliseconds, shortest));
    return wanted > longest / 1000 ? longest : wanted * 1000;
}

// A program with the rights of another user must not let its caller choose the file.
const char* path() {
    const char* const chosen = secure_getenv("GVUSB_CONFIG");
    return chosen == nullptr || *chosen == '\0' ? "/etc/gavo/gvusb.conf" : chosen;
}

} // namespace

Configuration parseConfiguration(const char* text) {
    Configuration configuration;
    readNumber("libusb_debuglevel=", text, configuration.libUsbDebugLevel);
    readNumber("gvusb_debuglevel=", text, configuration.debugLevel);
    // The mode is one character. Modes other than 1 and 2 activate nothing.
    if (const char* value = valueOf("gvusb_hotplug=", text); value != nullptr && *value != '\0') {
        configuration.hotPlugMode = static_cast<signed char>(*value) - '0';
    }
    if (const char* value = valueOf("gvusb_updaterate=", text)) {
        if (const auto milliseconds = leadingNumber<int>(value)) {
            configuration.updateRate = microseconds(*milliseconds);
        }
    }
    int parallel = 0;
    readNumber("gvusb_parallel=", text, parallel);
    configuration.parallel = parallel == 1;
    readLine("gvusb_logfile=", text, configuration.logFile);
    if (std::strstr(text, "nopnp") != nullptr) {
        configuration.hotPlugMode = 0;
    }
    return configuration;
}

ConfigurationFile::ConfigurationFile() noexcept
    : m_descriptor(open(path(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK)) {
    struct stat status = {};
    if (m_descriptor >= 0 && (fstat(m_descriptor, &status) != 0 || !S_ISREG(status.st_mode))) {
        close();
    }
}

ConfigurationFile::~ConfigurationFile() {
    close();
}

std::optional<Configuration> ConfigurationFile::read() {
    if (m_descriptor < 0) {
        return std::nullopt;
    }
    char text[configurationSize + 1] = {};
    std::size_t length = 0;
    ssize_t count = 0;
    while (length < sizeof text - 1 &&
           (count = ::read(m_descriptor, text + length, sizeof text - 1 - length)) > 0) {
        length += static_cast<std::size_t>(count);
    }
    close();
    return parseConfiguration(text);
}

void ConfigurationFile::close() noexcept {
    if (m_descriptor >= 0) {
        ::close(m_descriptor);
        m_descriptor = -1;
    }
}
