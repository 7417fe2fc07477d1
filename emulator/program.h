// The program that runs on the bus, as a child of the launcher, with all that it starts in turn.
//
// One thread calls the members, the one that lives as long as the launcher: the program is ended with it.
#pragma once

#include <csignal>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace emulator {

class Program {
public:
    // Names and values; no value takes the name out of the environment.
    using Environment = std::vector<std::pair<std::string, std::optional<std::string>>>;

    // Starts `arguments[0]`, looked up in PATH, with `mask` as its blocked signals. A program that cannot be
    // started has ended with 127 (not found) or 126, as a shell reports it; error() says why.
    Program(const std::vector<std::string>& arguments, const Environment& environment, const sigset_t& mask);
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    // Ends what is left of the program and of its children.
    ~Program();

    const std::string& error() const { return m_error; }

    // Takes note of children that have ended; to be called at SIGCHLD.
    void noteEnded();

    // Once it has ended: its exit status, or 128 and the number of the signal that ended it.
    std::optional<int> exitStatus() const { return m_exitStatus; }

    void signal(int number) const;

private:
    pid_t m_process = -1;
    std::optional<int> m_exitStatus;
    std::string m_error;
};

} // namespace emulator
