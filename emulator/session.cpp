#include "session.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <system_error>

#include <unistd.h>

namespace emulator {

namespace {

// How long a program that was told to end may take for it.
constexpr Milliseconds grace{5000};

Time now() {
    return std::chrono::steady_clock::now();
}

} // namespace

BlockedSignals::BlockedSignals() {
    sigemptyset(&handled_);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGCHLD, SIGPIPE})
        sigaddset(&handled_, number);
    ::pthread_sigmask(SIG_BLOCK, &handled_, &before_);
    descriptor_ = ::signalfd(-1, &handled_, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor_ < 0)
        throw std::system_error(errno, std::generic_category(), "signalfd");
}

BlockedSignals::~BlockedSignals() {
    ::close(descriptor_);
}

std::optional<signalfd_siginfo> BlockedSignals::take() const {
    signalfd_siginfo info{};
    return ::read(descriptor_, &info, sizeof info) == sizeof info ? std::optional(info) : std::nullopt;
}

Session::Session(Options options, const BlockedSignals& signals, Bus& bus, std::string socket)
    : options_(std::move(options))
    , signals_(signals)
    , bus_(bus)
    , socket_(std::move(socket))
    , channel_(socket_, [this](std::string_view line) { return runLine(line); }) {
    for (ReaderDescription& description : options_.readers) {
        const bool plugged = description.plugged;
        const std::size_t reader = bus_.add(std::move(description));
        if (plugged)
            bus_.plug(reader);
    }
}

int Session::run(Program::Environment environment) {
    environment.emplace_back(socketVariable, socket_);
    program_.emplace(options_.program, environment, signals_.before());
    start_ = now();
    if (!program_->error().empty())
        std::cerr << "gvusb-emulate: " << program_->error() << '\n';
    while (!program_->exitStatus())
        serve();
    return *program_->exitStatus();
}

void Session::runAlone() {
    start_ = now();
    while (!ended_)
        serve();
}

CommandAnswer Session::runLine(std::string_view line) {
    CommandAnswer answer = runCommand(bus_, line);
    if (options_.verbose)
        std::cerr << "gvusb-emulate: " << line << ": " << answer.text << '\n';
    return answer;
}

void Session::runScript() {
    const auto sinceStart = std::chrono::duration_cast<Milliseconds>(now() - start_);
    while (const std::optional<Script::Entry> entry = options_.script.take(sinceStart)) {
        const CommandAnswer answer = runLine(entry->command);
        if (answer.text.starts_with("error") && !options_.verbose)
            std::cerr << "gvusb-emulate: script line " << entry->line << ": " << answer.text << '\n';
    }
}

void Session::serve() {
    std::vector<pollfd> polled = {{.fd = signals_.descriptor(), .events = POLLIN, .revents = 0}};
    channel_.addPolled(polled);
    const std::size_t first = polled.size();
    bus_.addPolled(polled);
    const int timeout = millisecondsToNextDeadline();
    if (::poll(polled.data(), polled.size(), timeout) < 0 && errno != EINTR)
        throw std::system_error(errno, std::generic_category(), "poll");
    bus_.serve(polled, first);
    channel_.serve(polled);
    runScript();
    while (const std::optional<signalfd_siginfo> signal = signals_.take())
        handle(*signal);
    if (endBy_ && !killed_ && *endBy_ <= now()) {
        program_->signal(SIGKILL);
        killed_ = true;
    }
}

int Session::millisecondsToNextDeadline() {
    std::optional<Time> earliest = bus_.nextDeadline();
    const auto consider = [&](std::optional<Time> time) {
        if (time)
            earliest = std::min(earliest.value_or(*time), *time);
    };
    consider(channel_.nextDeadline());
    if (!killed_)
        consider(endBy_);
    if (const std::optional<Milliseconds> next = options_.script.next())
        consider(start_ + *next);
    if (!earliest)
        return -1;
    const auto left = std::chrono::ceil<Milliseconds>(*earliest - now());
    return static_cast<int>(std::max<Milliseconds::rep>(left.count(), 0));
}

void Session::handle(const signalfd_siginfo& signal) {
    if (program_) {
        passOn(signal);
        return;
    }
    const int number = static_cast<int>(signal.ssi_signo);
    ended_ |= number == SIGINT || number == SIGTERM || number == SIGHUP || number == SIGQUIT;
}

void Session::passOn(const signalfd_siginfo& signal) {
    const int number = static_cast<int>(signal.ssi_signo);
    if (number == SIGCHLD) {
        program_->noteEnded();
        return;
    }
    // What the terminal's keys send has reached the program as well; it decides what it means.
    const bool fromTerminal = signal.ssi_code == SI_KERNEL;
    if (number == SIGPIPE || (fromTerminal && number != SIGHUP))
        return;
    program_->signal(endBy_ ? SIGKILL : number);
    if (number != SIGUSR1 && number != SIGUSR2)
        endBy_ = now() + grace;
}

} // namespace emulator
