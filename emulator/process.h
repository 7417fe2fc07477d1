// Starting processes for the launcher.
//
// For the launcher's main thread only: the kernel kills a process when the thread that started it ends.
#pragma once

#include <csignal>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace emulator {

// Names and values; a name without a value is removed from the environment.
using Environment = std::vector<std::pair<std::string, std::optional<std::string>>>;

// Allow the launcher as many descriptors as it may have, because each opening of a node takes two. Processes get the
// limit as it was.
void allowManyDescriptors();

struct ProcessSetup {
    std::vector<std::string> arguments; // the first is looked up in PATH
    Environment environment;            // changes to the launcher's own
    sigset_t mask;                      // the signals to block

    // What becomes its standard input, output and error; -1: the launcher's.
    int input = -1;
    int output = -1;
    int error = -1;

    bool ownGroup = false; // which the terminal's signals do not reach
};

struct StartedProcess {
    pid_t id = -1;
    int error = 0; // the errno with which executing failed
};

// A process that cannot execute its program ends with status 127 (not found) or 126, as in a shell. Throws
// std::system_error if there can be no other process.
StartedProcess startProcess(const ProcessSetup& setup);

// The launcher's children, including those that it has inherited from parents that have ended.
std::vector<pid_t> childProcesses();

} // namespace emulator
