#include "program.h"

#include <cerrno>
#include <charconv>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace emulator {

namespace {

// As it was before the launcher raised it.
std::optional<rlimit> descriptorLimit;

// How long what the program leaves behind may take to end.
constexpr std::chrono::seconds moment(1);

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

std::vector<std::string> environmentWith(const Program::Environment& changes) {
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

// The launcher's children, including those it has inherited from parents that have ended.
std::vector<pid_t> children() {
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

// Processes that are only waited for are not worth a word.
void report(pid_t process) {
    const std::string folder = "/proc/" + std::to_string(process);
    std::string name;
    std::getline(std::ifstream(folder + "/comm"), name);
    std::ifstream stream(folder + "/stat");
    const std::string status(std::istreambuf_iterator<char>(stream), {});
    const auto nameEnd = status.rfind(") ");
    if (nameEnd != std::string::npos && status[nameEnd + 2] != 'Z') {
        std::cerr << "gvusb-emulate: killed process " << process << " (" << name
                  << "), which the program left running\n";
    }
}

// Runs in the new process. Only async-signal-safe calls, because the launcher may have other threads.
[[noreturn]] void runChild(char* const* arguments, char* const* environment, const sigset_t& mask,
                           int errorPipe, pid_t launcher) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() == launcher) {
        struct sigaction byDefault = {};
        byDefault.sa_handler = SIG_DFL;
        ::sigaction(SIGPIPE, &byDefault, nullptr);
        ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        if (descriptorLimit) {
            ::setrlimit(RLIMIT_NOFILE, &*descriptorLimit);
        }
        ::execvpe(arguments[0], arguments, environment);
    }
    const int error = errno;
    [[maybe_unused]] const ssize_t written = ::write(errorPipe, &error, sizeof error);
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

Program::Program(const std::vector<std::string>& arguments, const Environment& environment,
                 const sigset_t& mask) {
    std::vector<std::string> argumentTexts = arguments;
    std::vector<std::string> environmentTexts = environmentWith(environment);
    const std::vector<char*> argumentPointers = pointers(argumentTexts);
    const std::vector<char*> environmentPointers = pointers(environmentTexts);
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    // The launcher inherits processes whose parents have ended, so it can kill them too.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t launcher = ::getpid();
    m_process = ::fork();
    if (m_process == 0) {
        runChild(argumentPointers.data(), environmentPointers.data(), mask, pipe[1], launcher);
    }
    const int forkError = errno;
    ::close(pipe[1]);
    int error = 0;
    if (m_process > 0 && ::read(pipe[0], &error, sizeof error) == sizeof error) {
        m_error = arguments[0] + ": " + std::generic_category().message(error);
    }
    ::close(pipe[0]);
    if (m_process < 0) {
        throw std::system_error(forkError, std::generic_category(), "fork");
    }
}

Program::~Program() {
    // What a shell does not wait for ends by itself in a moment.
    for (const auto end = std::chrono::steady_clock::now() + moment;
         std::chrono::steady_clock::now() < end;) {
        const pid_t ended = ::waitpid(-1, nullptr, WNOHANG);
        if (ended < 0) {
            return;
        }
        if (ended == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    // Each round inherits the children of those killed in the last one.
    while (::waitpid(-1, nullptr, WNOHANG) >= 0) {
        for (const pid_t child : children()) {
            report(child);
            ::kill(child, SIGKILL);
        }
        ::waitpid(-1, nullptr, 0);
    }
}

void Program::noteEnded() {
    int status = 0;
    pid_t ended = 0;
    while ((ended = ::waitpid(-1, &status, WNOHANG)) > 0) {
        if (ended == m_process) {
            m_exitStatus = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        }
    }
    m_allEnded = ended < 0;
}

void Program::signal(int number) const {
    if (!m_exitStatus) {
        ::kill(m_process, number);
    }
}

} // namespace emulator
