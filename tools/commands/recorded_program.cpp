#include "commands/recorded_program.h"

#include "commands/restart_without_hotplug.h"
#include "companion_file.h"
#include "failure.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>

#include "recorder/recording_memory.h"

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr const char* preloadName = "libgvusb-record-preload.so";
constexpr const char* preloadVariable = "LD_PRELOAD";
constexpr const char* sanitizerVariable = "ASAN_OPTIONS";
constexpr std::array passedOn = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2};

std::atomic<pid_t> program = 0;
std::atomic<bool> waitsForSignal = false;
std::atomic<bool> isTold = false;
std::atomic<bool> hasOwnGroup = false;

void handleSignal(int number, siginfo_t* info, void*) {
    const int error = errno;
    const bool ends = number == SIGINT || number == SIGTERM;
    if (ends && waitsForSignal.exchange(false)) {
        isTold = true;
    } else if (info->si_code != SI_KERNEL || hasOwnGroup) {
        // The terminal sends its signals to the program, too, unless that is in a group of its own.
        ::kill(program, number);
    }
    errno = error;
}

fs::path findPreload() {
    const std::optional<fs::path> preload = companionFile(preloadName);
    if (!preload) {
        throw Failure(std::string(preloadName) + ": no such file");
    }
    if (preload->string().find_first_of(": ") != std::string::npos) {
        throw Failure(preload->string() +
                      ": a path with a blank or a colon cannot be preloaded; move the tool elsewhere");
    }
    return *preload;
}

// Ours in front, so that it sees what the program does before another preload answers it.
std::string preloads() {
    std::string result = findPreload().string();
    const char* const others = std::getenv(preloadVariable);
    std::string_view left = others != nullptr ? others : "";
    while (!left.empty()) {
        const auto end = std::min(left.find_first_of(": "), left.size());
        const std::string_view each = left.substr(0, end);
        if (!each.empty() && !each.ends_with(preloadName)) {
            result += ":" + std::string(each);
        }
        left.remove_prefix(std::min(end + 1, left.size()));
    }
    return result;
}

// The address sanitizer of gcc refuses to run behind a preloaded library, although it works there.
std::string sanitizerOptions() {
    const char* const options = std::getenv(sanitizerVariable);
    return (options != nullptr ? options + std::string(":") : std::string()) + "verify_asan_link_order=0";
}

std::vector<std::string> environmentWith(const std::string& memory) {
    auto changes = ownConfiguration();
    changes.emplace_back(preloadVariable, preloads());
    changes.emplace_back(sanitizerVariable, sanitizerOptions());
    changes.emplace_back(recording_variable, memory);
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        const std::string_view name = text.substr(0, text.find('='));
        if (std::ranges::none_of(changes, [name](const auto& change) { return change.first == name; })) {
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

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

void setActions(bool isOurs) {
    struct sigaction action = {};
    if (isOurs) {
        action.sa_sigaction = handleSignal;
        action.sa_flags = SA_SIGINFO | SA_RESTART;
    } else {
        action.sa_handler = SIG_DFL;
    }
    for (const int number : passedOn) {
        ::sigaction(number, &action, nullptr);
    }
}

void report(const char* name, int error) {
    const std::string text =
        std::string("gvusb: ") + name + ": " + std::generic_category().message(error) + "\n";
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
}

int statusOfFailedExec(int error) {
    return error == ENOENT ? 127 : 126;
}

bool isExecutable(const fs::path& file) {
    std::error_code error;
    return fs::is_regular_file(file, error) && ::access(file.c_str(), X_OK) == 0;
}

} // namespace

// As execvp() looks for it.
std::optional<int> reportMissingProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) {
        if (isExecutable(name)) {
            return std::nullopt;
        }
        const int error = ::access(name.c_str(), F_OK) == 0 ? EACCES : errno;
        report(name.c_str(), error);
        return statusOfFailedExec(error);
    }
    const char* const path = std::getenv("PATH");
    if (path == nullptr) {
        return std::nullopt; // the C library has a default
    }
    std::istringstream folders(path);
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (isExecutable(fs::path(folder.empty() ? "." : folder) / name)) {
            return std::nullopt;
        }
    }
    report(name.c_str(), ENOENT);
    return statusOfFailedExec(ENOENT);
}

RecordedProgram::RecordedProgram(const std::vector<std::string>& arguments, const std::string& memory,
                                 const Setup& setup) {
    std::vector<std::string> argumentTexts = arguments;
    std::vector<std::string> environmentTexts = environmentWith(memory);
    const std::vector<char*> argumentPointers = pointers(argumentTexts);
    const std::vector<char*> environmentPointers = pointers(environmentTexts);
    waitsForSignal = setup.untilSignal;
    hasOwnGroup = setup.untilSignal;
    isTold = false;
    // With SIGCHLD ignored, as this process may have inherited it, the program's exit status would be lost.
    struct sigaction inherited = {};
    struct sigaction usual = {};
    usual.sa_handler = SIG_DFL;
    ::sigaction(SIGCHLD, &usual, &inherited);
    // A recording that reaches the limit of a file's size ends, and the program goes on.
    std::signal(SIGXFSZ, SIG_IGN);
    // A signal that arrives before the program is known waits.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    m_process = ::fork();
    if (m_process < 0) {
        const int error = errno;
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw std::system_error(error, std::generic_category(), "fork");
    }
    if (m_process == 0) {
        if (setup.untilSignal) {
            ::setpgid(0, 0);
        }
        if (setup.output >= 0) {
            ::dup2(setup.output, STDOUT_FILENO);
        } else {
            ::close(STDOUT_FILENO); // as this program's was
        }
        ::sigaction(SIGCHLD, &inherited, nullptr);
        std::signal(SIGXFSZ, SIG_DFL);
        std::signal(SIGPIPE, SIG_DFL);
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
        ::execvpe(argumentPointers[0], argumentPointers.data(), environmentPointers.data());
        const int error = errno;
        report(argumentPointers[0], error);
        ::_exit(statusOfFailedExec(error));
    }
    program = m_process;
    setActions(true);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    m_ended = static_cast<int>(::syscall(SYS_pidfd_open, m_process, 0));
}

RecordedProgram::~RecordedProgram() {
    setActions(false);
    if (m_ended >= 0) {
        ::close(m_ended);
    }
}

void RecordedProgram::wait(int milliseconds) {
    pollfd polled = {.fd = m_ended, .events = POLLIN, .revents = 0};
    ::poll(&polled, 1, milliseconds);
    int status = 0;
    if (::waitpid(m_process, &status, WNOHANG) == m_process) {
        m_exitStatus = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }
}

bool RecordedProgram::isToldToStop() const {
    return isTold;
}
