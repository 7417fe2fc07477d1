// One run of the launcher on a bus: its commands, its script, its signals, and the program, if there is one.
//
// One thread, the launcher's, calls the members.

#pragma once

#include "control/bus.h"
#include "control/channel.h"
#include "options.h"
#include "program.h"

#include <csignal>
#include <optional>
#include <string>

#include <sys/signalfd.h>

namespace emulator {

// Blocks the signals that the launcher handles. To be done before there are other threads, which inherit it.
class BlockedSignals {
public:
    BlockedSignals();
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;
    ~BlockedSignals();

    const sigset_t& before() const { return before_; }
    int descriptor() const { return descriptor_; }
    std::optional<signalfd_siginfo> take() const;

private:
    sigset_t handled_{};
    sigset_t before_{};
    int descriptor_ = -1;
};

class Session {
public:
    // Puts the readers on the bus, and the socket for commands at this path.
    Session(Options options, const BlockedSignals& signals, Bus& bus, std::string socket);

    // Runs the program with this environment and returns its exit status.
    int run(Program::Environment environment);

    // Serves without a program, until a signal ends it.
    void runAlone();

private:
    CommandAnswer runLine(std::string_view line);
    void runScript();
    void serve();
    int millisecondsToNextDeadline();
    void handle(const signalfd_siginfo& signal);
    void passOn(const signalfd_siginfo& signal);

    Options options_;
    const BlockedSignals& signals_;
    Bus& bus_;
    std::string socket_;
    CommandChannel channel_;
    std::optional<Program> program_;
    Time start_;
    std::optional<Time> endBy_; // when a program that was told to end is killed
    bool killed_ = false;       // as it had not ended by then
    bool ended_ = false;        // by a signal, where there is no program
};

} // namespace emulator
