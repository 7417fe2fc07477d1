#include "launcher.h"

#include "command_channel.h"
#include "program.h"
#include "scratch_folder.h"
#include "virtual_bus.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <system_error>

#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace emulator {

namespace {

namespace fs = std::filesystem;

constexpr const char* preloadVariable = "LD_PRELOAD";
constexpr std::string_view umockdevPreload = "libumockdev-preload.so.0";
constexpr std::string_view companionPreload = "libgvusb-emulate-preload.so";

// How long a program that was told to end may take for it.
constexpr Milliseconds grace{5000};

Time now() {
    return std::chrono::steady_clock::now();
}

// LD_PRELOAD's entries without those of the emulator.
std::string foreignPreloads() {
    const char* value = std::getenv(preloadVariable);
    std::string kept;
    std::string text = value != nullptr ? value : "";
    std::ranges::replace(text, ' ', ':');
    for (const std::string& entry : splitEscaped(text, ':')) {
        if (!entry.empty() && !entry.ends_with(umockdevPreload) && !entry.ends_with(companionPreload))
            kept += (kept.empty() ? "" : ":") + entry;
    }
    return kept;
}

// Beside the launcher in a build folder, in the library folder when installed.
fs::path findCompanion() {
    const fs::path launcher = fs::read_symlink("/proc/self/exe");
    const std::array candidates = {launcher.parent_path() / companionPreload,
                                   launcher.parent_path().parent_path() / GVUSB_EMULATE_PRELOAD_FOLDER /
                                       companionPreload};
    for (const fs::path& candidate : candidates) {
        if (fs::exists(candidate))
            return candidate;
    }
    throw std::runtime_error(candidates.front().string() + " is missing");
}

// Blocks the signals that the launcher handles. To be done before there are other threads, which inherit it.
class BlockedSignals {
public:
    BlockedSignals() {
        sigemptyset(&handled_);
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGCHLD, SIGPIPE})
            sigaddset(&handled_, number);
        ::pthread_sigmask(SIG_BLOCK, &handled_, &before_);
        descriptor_ = ::signalfd(-1, &handled_, SFD_CLOEXEC | SFD_NONBLOCK);
        if (descriptor_ < 0)
            throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;
    ~BlockedSignals() { ::close(descriptor_); }

    const sigset_t& before() const { return before_; }
    int descriptor() const { return descriptor_; }

    std::optional<signalfd_siginfo> take() const {
        signalfd_siginfo info{};
        return ::read(descriptor_, &info, sizeof info) == sizeof info ? std::optional(info) : std::nullopt;
    }

private:
    sigset_t handled_{};
    sigset_t before_{};
    int descriptor_ = -1;
};

class Session {
public:
    Session(Options options, const BlockedSignals& signals, const fs::path& folder)
        : options_(std::move(options))
        , signals_(signals)
        , bus_(folder)
        , socket_((folder / "commands").string())
        , channel_(socket_, [this](std::string_view line) { return runLine(line); }) {
        for (ReaderDescription& description : options_.readers) {
            const bool plugged = description.plugged;
            const std::size_t reader = bus_.add(std::move(description));
            if (plugged)
                bus_.plug(reader);
        }
    }

    int run(const fs::path& folder) {
        Program program(options_.program, environment(folder), signals_.before());
        start_ = now();
        if (!program.error().empty())
            std::cerr << "gvusb-emulate: " << program.error() << '\n';
        while (!program.exitStatus())
            serve(program);
        return *program.exitStatus();
    }

private:
    Program::Environment environment(const fs::path& folder) const {
        std::string preloads = foreignPreloads();
        preloads +=
            (preloads.empty() ? "" : ":") + findCompanion().string() + ":" + std::string(umockdevPreload);
        return {{preloadVariable, preloads},
                {"UMOCKDEV_DIR", bus_.root()},
                {socketVariable, socket_},
                {"GVUSB_EMULATE_FOLDER", folder.string()},
                {"GVUSB_EMULATE_CONFIG", options_.configurationFile}};
    }

    CommandAnswer runLine(std::string_view line) {
        CommandAnswer answer = runCommand(bus_, line);
        if (options_.verbose)
            std::cerr << "gvusb-emulate: " << line << ": " << answer.text << '\n';
        return answer;
    }

    void runScript() {
        const auto sinceStart = std::chrono::duration_cast<Milliseconds>(now() - start_);
        while (const std::optional<Script::Entry> entry = options_.script.take(sinceStart)) {
            const CommandAnswer answer = runLine(entry->command);
            if (answer.text.starts_with("error") && !options_.verbose)
                std::cerr << "gvusb-emulate: script line " << entry->line << ": " << answer.text << '\n';
        }
    }

    void serve(Program& program) {
        std::vector<pollfd> polled = {{.fd = signals_.descriptor(), .events = POLLIN, .revents = 0},
                                      {.fd = bus_.wakeUpDescriptor(), .events = POLLIN, .revents = 0}};
        channel_.addPolled(polled);
        const int timeout = millisecondsToNextDeadline();
        if (::poll(polled.data(), polled.size(), timeout) < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "poll");
        if (polled[1].revents != 0)
            bus_.noteWakeUp();
        bus_.advance();
        channel_.serve(polled);
        runScript();
        while (const std::optional<signalfd_siginfo> signal = signals_.take())
            handle(*signal, program);
        if (endBy_ && *endBy_ <= now())
            program.signal(SIGKILL);
    }

    int millisecondsToNextDeadline() {
        std::optional<Time> earliest = bus_.nextDeadline();
        const auto consider = [&](std::optional<Time> time) {
            if (time)
                earliest = std::min(earliest.value_or(*time), *time);
        };
        consider(channel_.nextDeadline());
        consider(endBy_);
        if (const std::optional<Milliseconds> next = options_.script.next())
            consider(start_ + *next);
        if (!earliest)
            return -1;
        const auto left = std::chrono::ceil<Milliseconds>(*earliest - now());
        return static_cast<int>(std::max<Milliseconds::rep>(left.count(), 0));
    }

    void handle(const signalfd_siginfo& signal, Program& program) {
        const int number = static_cast<int>(signal.ssi_signo);
        if (number == SIGCHLD) {
            program.noteEnded();
            return;
        }
        // What the terminal's keys send has reached the program as well; it decides what it means.
        const bool fromTerminal = signal.ssi_code == SI_KERNEL;
        if (number == SIGPIPE || (fromTerminal && number != SIGHUP))
            return;
        program.signal(endBy_ ? SIGKILL : number);
        if (number != SIGUSR1 && number != SIGUSR2)
            endBy_ = now() + grace;
    }

    Options options_;
    const BlockedSignals& signals_;
    VirtualBus bus_;
    std::string socket_;
    CommandChannel channel_;
    Time start_;
    std::optional<Time> endBy_; // when a program that was told to end is killed
};

} // namespace

void ensurePreloaded(char* const* arguments) {
    const char* value = std::getenv(preloadVariable);
    const std::string present = value != nullptr ? value : "";
    if (present.find(umockdevPreload) != std::string::npos)
        return;
    const std::string wanted = present + (present.empty() ? "" : ":") + std::string(umockdevPreload);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread yet
    if (::setenv(preloadVariable, wanted.c_str(), 1) == 0)
        ::execv("/proc/self/exe", arguments);
    throw std::system_error(errno, std::generic_category(), "/proc/self/exe");
}

int launch(Options options) {
    const BlockedSignals signals;
    // Every frame costs umockdev some very short sleeps; by default the kernel adds 50 microseconds to each.
    // The program inherits the setting.
    ::prctl(PR_SET_TIMERSLACK, 1);
    const ScratchFolder folder;
    const char* before = std::getenv("TMPDIR");
    const std::string temporary = before != nullptr ? before : "";
    // umockdev makes its folder where TMPDIR says, and GLib reads the variable once.
    // NOLINTBEGIN(concurrency-mt-unsafe): no other thread of the launcher reads the environment
    ::setenv("TMPDIR", folder.path().c_str(), 1);
    ::unsetenv("UMOCKDEV_DIR");
    Session session(std::move(options), signals, folder.path());
    if (before != nullptr)
        ::setenv("TMPDIR", temporary.c_str(), 1);
    else
        ::unsetenv("TMPDIR");
    // NOLINTEND(concurrency-mt-unsafe)
    return session.run(folder.path());
}

} // namespace emulator
