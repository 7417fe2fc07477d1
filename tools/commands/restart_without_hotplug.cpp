#include "commands/restart_without_hotplug.h"

#include "failure.h"
#include "output.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr const char* configurationVariable = "GVUSB_CONFIG";
// Set in the process that has been started again: "+" and what the other variable was, or "-" if it was not set.
constexpr const char* keptVariable = "GVUSB_KEPT_CONFIG";

[[noreturn]] void fail(const char* what) {
    throw Failure(std::string(what) + ": " + std::generic_category().message(errno));
}

// A file without a name, which stays open in the process that is started again.
std::string idleConfiguration() {
    constexpr std::string_view text = "gvusb_hotplug=0\n";
    const int file = ::memfd_create("gvusb.conf", 0);
    if (file < 0 || ::write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        fail("memfd_create");
    }
    return "/proc/self/fd/" + std::to_string(file);
}

std::vector<std::string> ownArguments() {
    std::ifstream stream("/proc/self/cmdline", std::ios::binary);
    std::vector<std::string> arguments;
    for (std::string argument; std::getline(stream, argument, '\0');) {
        arguments.push_back(argument);
    }
    return arguments;
}

} // namespace

void restartWithoutHotplug() {
    if (std::getenv(keptVariable) != nullptr) {
        // The library has read it. The program must not inherit it.
        const char* const path = std::getenv(configurationVariable);
        const char* const number = path != nullptr ? std::strrchr(path, '/') : nullptr;
        if (number != nullptr) {
            ::close(std::atoi(number + 1));
        }
        return;
    }
    const char* const before = std::getenv(configurationVariable);
    ::setenv(keptVariable, before != nullptr ? ("+" + std::string(before)).c_str() : "-", 1);
    ::setenv(configurationVariable, idleConfiguration().c_str(), 1);
    std::vector<std::string> arguments = ownArguments();
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    // As it was when this process started.
    if (output::descriptor() >= 0) {
        ::dup2(output::descriptor(), STDOUT_FILENO);
    } else {
        ::close(STDOUT_FILENO);
    }
    ::execv("/proc/self/exe", pointers.data());
    fail("/proc/self/exe");
}

std::vector<std::pair<std::string, std::optional<std::string>>> ownConfiguration() {
    const char* const kept = std::getenv(keptVariable);
    if (kept == nullptr) {
        return {};
    }
    return {{keptVariable, std::nullopt},
            {configurationVariable, *kept == '+' ? std::optional<std::string>(kept + 1) : std::nullopt}};
}
