// Everything that happens while a bus exists: commands, the script, signals and the program.
//
// For the launcher's thread only.
#pragma once

#include "control/bus.h"
#include "control/channel.h"
#include "logic/logics.h"
#include "options.h"
#include "program.h"
#include "replay/replay.h"

#include <csignal>
#include <optional>
#include <set>
#include <string>

#include <sys/signalfd.h>

namespace emulator {

// Blocks the signals that the launcher handles and reads them from a descriptor. Construct it before other
// threads start, because they inherit the mask.
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
    // Add the readers of the options to the bus and create the command socket at this path. Commands that play readers
    // are started with `logicEnvironment`.
    Session(Options options, const BlockedSignals& signals, Bus& bus, std::string socket,
            Environment logicEnvironment);

    // Run the program with this environment and return its exit status, or 1 if it is 0 but the script or a command that
    // plays a reader has failed.
    int run(Environment environment);

    // Serve without a program until a signal arrives. Return the exit status.
    int runAlone();

private:
    CommandAnswer runLine(std::string_view line);
    void runScript();
    bool scriptFailed(); // reports a command that did not run
    bool replayFailed(); // likewise a request
    bool reportFailures();
    void startClock();
    void startLogics();
    void reap();
    int statusAfterLogics(int status);
    void serve();
    int millisecondsToNextDeadline();
    void handle(const signalfd_siginfo& signal);
    void passOn(const signalfd_siginfo& signal);
    void kill(const std::string& reason);

    Options m_options;
    const BlockedSignals& m_signals;
    Bus& m_bus;
    std::string m_socket;
    CommandChannel m_channel;
    std::optional<Program> m_program;
    std::optional<replay::Replay> m_replay;
    Logics m_logics; // ended before the program's leftovers are killed
    Time m_start;
    std::set<std::string> m_failedLines; // of the script
    std::optional<Time> m_endBy;         // when to kill a program that has got a signal
    bool m_askedToEnd = false;           // the program, by a signal
    bool m_allEnded = false;             // the program with all its children
    bool m_killed = false;
    bool m_ended = false; // by a signal, without a program
};

} // namespace emulator
