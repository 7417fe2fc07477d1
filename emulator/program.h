// The program that runs on the bus, a child process of the launcher, with its own children.
//
// For the launcher's main thread only: the kernel kills the program when the thread that started it ends.
#pragma once

#include <csignal>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace emulator {

// Allow the launcher as many descriptors as it may have, because each opening of a node takes two. Programs get the
// limit as it was.
void allowManyDescriptors();

class Program {
public:
    // Names and values; a name without a value is removed from the environment.
    using Environment = std::vector<std::pair<std::string, std::optional<std::string>>>;

    // Start `arguments[0]`, looked up in PATH, with the signals of `mask` blocked. If that fails, the exit
    // status is 127 (not found) or 126, as in a shell, and error() gives the reason.
    Program(const std::vector<std::string>& arguments, const Environment& environment, const sigset_t& mask);
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    // Kills whatever is left of the program and its children, and says so on standard error.
    ~Program();

    const std::string& error() const { return m_error; }

    // Reap children that have ended. Call it after SIGCHLD.
    void noteEnded();

    // Empty while the program runs; then its exit status, or 128 plus the number of the signal that killed
    // it.
    std::optional<int> exitStatus() const { return m_exitStatus; }

    // Whether nothing of the program is left, not even its children.
    bool allEnded() const { return m_allEnded; }

    void signal(int number) const;

private:
    pid_t m_process = -1;
    std::optional<int> m_exitStatus;
    bool m_allEnded = false;
    std::string m_error;
};

} // namespace emulator
