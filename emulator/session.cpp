#include "session.h"

#include "preload_contract.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <system_error>

#include <sys/wait.h>
#include <unistd.h>

namespace emulator {

namespace {

bool asksToEnd(int signal) {
    return signal == SIGINT || signal == SIGTERM || signal == SIGHUP || signal == SIGQUIT;
}

Time now() {
    return std::chrono::steady_clock::now();
}

} // namespace

BlockedSignals::BlockedSignals() {
    sigemptyset(&m_handled);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGCHLD, SIGPIPE}) {
        sigaddset(&m_handled, number);
    }
    ::pthread_sigmask(SIG_BLOCK, &m_handled, &m_before);
    m_descriptor = ::signalfd(-1, &m_handled, SFD_CLOEXEC | SFD_NONBLOCK);
    if (m_descriptor < 0) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
}

BlockedSignals::~BlockedSignals() {
    ::close(m_descriptor);
}

std::optional<signalfd_siginfo> BlockedSignals::take() const {
    signalfd_siginfo info{};
    return ::read(m_descriptor, &info, sizeof info) == sizeof info ? std::optional(info) : std::nullopt;
}

Session::Session(Options options, const BlockedSignals& signals, Bus& bus, std::string socket,
                 Environment logicEnvironment)
    : m_options(std::move(options))
    , m_signals(signals)
    , m_bus(bus)
    , m_socket(std::move(socket))
    , m_channel(m_socket, [this](std::string_view line) { return runLine(line); })
    , m_logics(bus, std::move(logicEnvironment), signals.before()) {
    if (m_options.seed) {
        m_bus.seed().give(*m_options.seed);
    }
    m_bus.seed().setReport([](std::uint64_t seed) { std::cerr << "gvusb-emulate: seed " << seed << '\n'; });
    // The bus has to know which addresses are wanted before it chooses any.
    std::vector<std::size_t> plugged;
    for (ReaderDescription& description : m_options.readers) {
        const bool isPlugged = description.plugged;
        const std::size_t reader = m_bus.add(std::move(description));
        if (isPlugged) {
            plugged.push_back(reader);
        }
    }
    if (m_options.replay) {
        const auto report = [](const std::string& text) { std::cerr << "gvusb-emulate: " + text + "\n"; };
        m_replay.emplace(*m_options.replay, m_bus, report);
    }
    for (const std::size_t reader : plugged) {
        m_bus.plug(reader);
    }
}

void Session::startClock() {
    m_start = now();
    if (m_replay) {
        m_replay->start(m_start);
    }
}

// A command that cannot be started is an error before the program starts.
void Session::startLogics() {
    constexpr int betweenLooks = 2;
    m_logics.startNew();
    while (!m_logics.ready()) {
        std::array<pollfd, 2> polled = {{{.fd = m_signals.descriptor(), .events = POLLIN, .revents = 0},
                                         {.fd = m_logics.descriptor(), .events = POLLIN, .revents = 0}}};
        ::poll(polled.data(), polled.size(), betweenLooks);
        m_logics.serve();
        while (const std::optional<signalfd_siginfo> signal = m_signals.take()) {
            handle(*signal);
        }
        if (m_ended) {
            throw std::runtime_error("ended by a signal before the program was started");
        }
    }
}

int Session::statusAfterLogics(int status) {
    m_logics.end();
    return status == 0 && m_logics.failed() ? EXIT_FAILURE : status;
}

int Session::run(Environment environment) {
    startLogics();
    environment.emplace_back(emulate_socket_variable, m_socket);
    m_start = now();
    runScript(); // before the program can notice anything
    m_program.emplace(m_options.program, environment, m_signals.before());
    startClock();
    if (!m_program->error().empty()) {
        std::cerr << "gvusb-emulate: " << m_program->error() << '\n';
    }
    while (!m_program->exitStatus() || (m_options.waitForAll && !m_allEnded && !m_askedToEnd)) {
        serve();
    }
    const bool failed = reportFailures();
    const int status = *m_program->exitStatus();
    return statusAfterLogics(status == EXIT_SUCCESS && failed ? EXIT_FAILURE : status);
}

int Session::runAlone() {
    startLogics();
    startClock();
    while (!m_ended) {
        serve();
    }
    return statusAfterLogics(reportFailures() ? EXIT_FAILURE : EXIT_SUCCESS);
}

// Those of the script and of a replay: both are reported.
bool Session::reportFailures() {
    const bool script = scriptFailed();
    const bool replay = replayFailed();
    return script || replay;
}

// The status of a process is taken by its owner.
void Session::reap() {
    for (;;) {
        siginfo_t info{};
        if (::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
            m_allEnded = true;
            return;
        }
        if (info.si_pid == 0) {
            break;
        }
        if (m_logics.noteEnded(info.si_pid)) {
            continue;
        }
        if (m_program) {
            m_program->noteEnded(info.si_pid);
        } else {
            ::waitpid(info.si_pid, nullptr, WNOHANG);
        }
    }
    m_allEnded = m_options.waitForAll && !m_logics.empty() &&
                 std::ranges::all_of(childProcesses(), [this](pid_t each) { return m_logics.has(each); });
}

CommandAnswer Session::runLine(std::string_view line) {
    CommandAnswer answer = runCommand(m_bus, line);
    if (m_replay) {
        m_replay->notePlugging();
    }
    if (m_options.verbose) {
        std::cerr << "gvusb-emulate: " << line << ": " << answer.text << '\n';
    }
    return answer;
}

void Session::runScript() {
    const auto sinceStart = std::chrono::duration_cast<Milliseconds>(now() - m_start);
    while (const std::optional<Script::Entry> entry = m_options.script.take(sinceStart)) {
        const CommandAnswer answer = runLine(entry->command);
        // Once for each line, because a loop may repeat it.
        if (answer.text.starts_with("error") && m_failedLines.insert(entry->place).second) {
            std::cerr << "gvusb-emulate: " << entry->place << ": " << answer.text << '\n';
        }
    }
}

bool Session::scriptFailed() {
    if (m_options.lenient) {
        return false;
    }
    const std::optional<Script::Entry> missed = m_options.script.missed();
    if (missed) {
        std::cerr << "gvusb-emulate: " << missed->place << ": error: the time of '" << missed->command
                  << "' had not come at the end\n";
    }
    return missed || !m_failedLines.empty();
}

bool Session::replayFailed() {
    return m_replay && m_replay->finish() && !m_options.lenient;
}

void Session::serve() {
    std::vector<pollfd> polled = {{.fd = m_signals.descriptor(), .events = POLLIN, .revents = 0}};
    m_channel.addPolled(polled);
    const std::size_t first = polled.size();
    m_bus.addPolled(polled);
    polled.push_back({.fd = m_logics.descriptor(), .events = POLLIN, .revents = 0});
    if (m_replay) {
        polled.push_back({.fd = m_replay->descriptor(), .events = POLLIN, .revents = 0});
    }
    const int timeout = millisecondsToNextDeadline();
    if (::poll(polled.data(), polled.size(), timeout) < 0 && errno != EINTR) {
        throw std::system_error(errno, std::generic_category(), "poll");
    }
    m_bus.serve(polled, first);
    if (m_replay) {
        m_replay->serve(now());
    }
    m_channel.serve(polled);
    runScript();
    m_logics.serve();
    while (const std::optional<signalfd_siginfo> signal = m_signals.take()) {
        handle(*signal);
    }
    if (m_endBy && !m_killed && *m_endBy <= now()) {
        kill("did not end within " + std::to_string(m_options.killAfter) + " s of a signal");
    }
}

int Session::millisecondsToNextDeadline() {
    std::optional<Time> earliest = m_bus.nextDeadline();
    const auto consider = [&](std::optional<Time> time) {
        if (time) {
            earliest = std::min(earliest.value_or(*time), *time);
        }
    };
    consider(m_channel.nextDeadline());
    consider(m_logics.nextDeadline());
    if (m_replay) {
        consider(m_replay->nextDeadline());
    }
    if (!m_killed) {
        consider(m_endBy);
    }
    if (const std::optional<Milliseconds> next = m_options.script.next()) {
        consider(m_start + *next);
    }
    if (!earliest) {
        return -1;
    }
    const auto left = std::chrono::ceil<Milliseconds>(*earliest - now());
    return static_cast<int>(std::max<Milliseconds::rep>(left.count(), 0));
}

void Session::handle(const signalfd_siginfo& signal) {
    const int number = static_cast<int>(signal.ssi_signo);
    if (number == SIGCHLD) {
        reap();
        return;
    }
    if (m_program) {
        passOn(signal);
        return;
    }
    m_ended |= asksToEnd(number);
}

void Session::passOn(const signalfd_siginfo& signal) {
    const int number = static_cast<int>(signal.ssi_signo);
    // The terminal sends its signals to the program too, which decides what to do.
    const bool fromTerminal = signal.ssi_code == SI_KERNEL;
    if (number == SIGPIPE || (fromTerminal && number != SIGHUP)) {
        return;
    }
    if (!asksToEnd(number)) {
        m_program->signal(number);
        return;
    }
    if (m_askedToEnd) {
        kill("got a second signal to end");
        return;
    }
    m_askedToEnd = true;
    m_program->signal(number);
    if (m_options.killAfter != 0) {
        m_endBy = now() + std::chrono::seconds(m_options.killAfter);
    }
}

void Session::kill(const std::string& reason) {
    if (!m_killed && !m_program->exitStatus()) {
        std::cerr << "gvusb-emulate: killed the program, which " << reason << '\n';
        m_program->signal(SIGKILL);
    }
    m_killed = true;
}

} // namespace emulator
