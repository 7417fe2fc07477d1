// A program that is run to be recorded.
//
// For the main thread. Only one may exist at a time.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

// If there is no such program to execute, say so on standard error and return the exit status, as a shell does.
std::optional<int> reportMissingProgram(const std::string& name);

class RecordedProgram {
public:
    struct Setup {
        int output = -1; // the program's standard output
        // The first SIGINT or SIGTERM is not passed on, but told by isToldToStop().
        bool untilSignal = false;
    };

    // Starts the program, looked up in PATH, with the preload. `memory` is the name of the ring.
    RecordedProgram(const std::vector<std::string>& arguments, const std::string& memory, const Setup& setup);
    RecordedProgram(const RecordedProgram&) = delete;
    RecordedProgram& operator=(const RecordedProgram&) = delete;
    ~RecordedProgram();

    // Wait for this long, for a signal, or for the program to end.
    void wait(int milliseconds);

    bool isToldToStop() const;

    // Empty while the program runs; then as a shell reports it.
    std::optional<int> exitStatus() const { return m_exitStatus; }

private:
    pid_t m_process = -1;
    int m_ended = -1; // a descriptor that becomes readable when the program ends
    std::optional<int> m_exitStatus;
};
