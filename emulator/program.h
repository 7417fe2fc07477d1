// The program that runs on the bus, a child process of the launcher, with its own children.
//
// For the launcher's main thread only: the kernel kills the program when the thread that started it ends.
#pragma once

#include "process.h"

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace emulator {

class Program {
public:
    // Start `arguments[0]`, looked up in PATH, with the signals of `mask` blocked. If that fails, the exit
    // status is 127 (not found) or 126, as in a shell, and error() gives the reason.
    Program(const std::vector<std::string>& arguments, const Environment& environment, const sigset_t& mask);
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    // Kills whatever is left of the program and its children, and says so on standard error.
    ~Program();

    const std::string& error() const { return m_error; }

    // Reap a child that has ended.
    void noteEnded(pid_t process);

    // Empty while the program runs; then its exit status, or 128 plus the number of the signal that killed
    // it.
    std::optional<int> exitStatus() const { return m_exitStatus; }

    void signal(int number) const;

private:
    pid_t m_process = -1;
    std::optional<int> m_exitStatus;
    std::string m_error;
};

} // namespace emulator
