#include "program.h"

#include <chrono>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <system_error>
#include <thread>

#include <sys/prctl.h>
#include <sys/wait.h>

namespace emulator {

namespace {

// How long what the program leaves behind may take to end.
constexpr std::chrono::seconds moment(1);

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

} // namespace

Program::Program(const std::vector<std::string>& arguments, const Environment& environment,
                 const sigset_t& mask) {
    // The launcher inherits processes whose parents have ended, so it can kill them too.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    const StartedProcess started =
        startProcess({.arguments = arguments, .environment = environment, .mask = mask});
    m_process = started.id;
    if (started.error != 0) {
        m_error = arguments[0] + ": " + std::generic_category().message(started.error);
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
        for (const pid_t child : childProcesses()) {
            report(child);
            ::kill(child, SIGKILL);
        }
        ::waitpid(-1, nullptr, 0);
    }
}

void Program::noteEnded(pid_t process) {
    int status = 0;
    if (::waitpid(process, &status, WNOHANG) == process && process == m_process) {
        m_exitStatus = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }
}

void Program::signal(int number) const {
    if (!m_exitStatus) {
        ::kill(m_process, number);
    }
}

} // namespace emulator
