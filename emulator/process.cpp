#include "process.h"

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace emulator {

namespace {

// As it was before the launcher raised it.
std::optional<rlimit> descriptorLimit;

constexpr int notExecutable = 126;
constexpr int notFound = 127;

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

std::vector<std::string> environmentWith(const Environment& changes) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        const std::string_view name = text.substr(0, text.find('='));
        bool changed = false;
        for (const auto& change : changes) {
            changed |= change.first == name;
        }
        if (!changed) {
            result.emplace_back(text);
        }
    }
    for (const auto& [name, value] : changes) {
        if (value) {
            result.push_back(name + "=" + *value);
        }
    }
    return result;
}

// A copy above the standard descriptors, so that filling their places does not close it.
int above(int descriptor) {
    return descriptor < 0 ? -1 : ::fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

void replace(int standard, int descriptor) {
    if (descriptor >= 0) {
        ::dup2(descriptor, standard);
    }
}

// Runs in the new process. Only async-signal-safe calls, because the launcher may have other threads.
[[noreturn]] void runChild(char* const* arguments, char* const* environment, const ProcessSetup& setup,
                           int errorPipe, pid_t launcher) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int report = above(errorPipe);
    if (::getppid() == launcher) {
        if (setup.ownGroup) {
            ::setpgid(0, 0);
        }
        const int input = above(setup.input);
        const int output = above(setup.output);
        const int error = above(setup.error);
        replace(STDIN_FILENO, input);
        replace(STDOUT_FILENO, output);
        replace(STDERR_FILENO, error);
        struct sigaction byDefault = {};
        byDefault.sa_handler = SIG_DFL;
        ::sigaction(SIGPIPE, &byDefault, nullptr);
        ::pthread_sigmask(SIG_SETMASK, &setup.mask, nullptr);
        if (descriptorLimit) {
            ::setrlimit(RLIMIT_NOFILE, &*descriptorLimit);
        }
        ::execvpe(arguments[0], arguments, environment);
    }
    const int error = errno;
    [[maybe_unused]] const ssize_t written = ::write(report, &error, sizeof error);
    ::_exit(error == ENOENT ? notFound : notExecutable);
}

} // namespace

void allowManyDescriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        descriptorLimit = limit;
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

StartedProcess startProcess(const ProcessSetup& setup) {
    std::vector<std::string> argumentTexts = setup.arguments;
    std::vector<std::string> environmentTexts = environmentWith(setup.environment);
    const std::vector<char*> argumentPointers = pointers(argumentTexts);
    const std::vector<char*> environmentPointers = pointers(environmentTexts);
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    const pid_t launcher = ::getpid();
    StartedProcess started = {.id = ::fork(), .error = 0};
    if (started.id == 0) {
        runChild(argumentPointers.data(), environmentPointers.data(), setup, pipe[1], launcher);
    }
    const int forkError = errno;
    ::close(pipe[1]);
    int error = 0;
    if (started.id > 0 && ::read(pipe[0], &error, sizeof error) == sizeof error) {
        started.error = error;
    }
    ::close(pipe[0]);
    if (started.id < 0) {
        throw std::system_error(forkError, std::generic_category(), "fork");
    }
    return started;
}

std::vector<pid_t> childProcesses() {
    std::vector<pid_t> result;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
        const std::string name = entry.path().filename().string();
        pid_t process = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), process).ec != std::errc{}) {
            continue;
        }
        std::ifstream stream(entry.path() / "stat");
        const std::string status(std::istreambuf_iterator<char>(stream), {});
        // "PID (NAME) STATE PARENT ...", where NAME may contain any character.
        const auto nameEnd = status.rfind(") ");
        if (nameEnd == std::string::npos || nameEnd + 4 >= status.size()) {
            continue;
        }
        pid_t parent = 0;
        std::from_chars(status.data() + nameEnd + 4, status.data() + status.size(), parent);
        if (parent == ::getpid()) {
            result.push_back(process);
        }
    }
    return result;
}

} // namespace emulator
