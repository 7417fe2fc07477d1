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

    const sigset_t& before() const { return m_before; }
    int descriptor() const { return m_descriptor; }
    std::optional<signalfd_siginfo> take() const;

private:
    sigset_t m_handled{};
    sigset_t m_before{};
    int m_descriptor = -1;
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

    Options m_options;
    const BlockedSignals& m_signals;
    Bus& m_bus;
    std::string m_socket;
    CommandChannel m_channel;
    std::optional<Program> m_program;
    Time m_start;
    std::optional<Time> m_endBy; // when a program that was told to end is killed
    bool m_killed = false;       // as it had not ended by then
    bool m_ended = false;        // by a signal, where there is no program
};

} // namespace emulator
