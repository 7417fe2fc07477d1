#include "command.h"
#include "commands/bus_watch.h"
#include "failure.h"
#include "hexadecimal.h"
#include "interruption.h"
#include "json.h"
#include "output.h"
#include "table.h"

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>
#include <memory>
#include <optional>

#include <poll.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    unsigned int pollInterval = 50;
    std::size_t count = 0;  // without end
    double idleTimeout = 0; // none
    bool json = false;
};

// What the bus has when nothing was reported for so long is looked at once more: the library notes what it
// has reported after its handlers have run, and a reader may be unreadable for a moment when it arrives.
constexpr std::chrono::milliseconds settlingTime(100);

// "2024-05-01T12:34:56.789+02:00"
std::string timeStamp() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch());
    std::tm parts = {};
    ::localtime_r(&seconds, &parts);
    std::array<char, 32> date{};
    std::array<char, 8> zone{};
    std::array<char, 64> text{};
    std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::strftime(zone.data(), zone.size(), "%z", &parts);
    std::snprintf(text.data(), text.size(), "%s.%03d%.3s:%.2s", date.data(),
                  static_cast<int>(sinceEpoch.count() % 1000), zone.data(), zone.data() + 3);
    return text.data();
}

Presence::Ids scan() {
    const int code = GVUSB_Scan(GVUSB_SCAN_ALL, nullptr);
    if (code != GVUSB_ERR_NO_DEVICE_FOUND)
        check("scan", code);
    Presence::Ids ids;
    const int size = GVUSB_GetScanListSize();
    for (int index = 0; index < size; ++index) {
        std::array<char, GVUSB_PARAMETER_SIZE> text{};
        // An entry may be emptied by a poll meanwhile.
        if (GVUSB_GetScanListPara(index, "DEVICE-ID", text.data()) == GVUSB_OK)
            ids.push_back(checkedId(text.data()));
    }
    return ids;
}

class Monitoring {
public:
    explicit Monitoring(const Options& options)
        : options_(options)
        , watch_(options.pollInterval)
        , presence_(scan())
        , idleSince_(Clock::now()) {}

    ExitStatus run() {
        if (::isatty(STDERR_FILENO) != 0)
            std::fprintf(stderr, "Watching %s; Ctrl-C ends.\n", watch_.manner().c_str());
        for (;;) {
            waitForNews();
            if (interruption_.wished())
                return ExitStatus::ok;
            if (look())
                return ExitStatus::ok;
            if (idleEnd() && *idleEnd() <= Clock::now())
                return ExitStatus::timeOut;
        }
    }

private:
    std::optional<Clock::time_point> idleEnd() const {
        if (options_.idleTimeout <= 0)
            return std::nullopt;
        const std::chrono::duration<double> longest(options_.idleTimeout);
        return idleSince_ + std::chrono::duration_cast<Clock::duration>(longest);
    }

    int waitMilliseconds() const {
        std::optional<Clock::time_point> earliest = settled_;
        if (const auto end = idleEnd())
            earliest = std::min(earliest.value_or(*end), *end);
        if (!earliest)
            return -1;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*earliest - Clock::now()).count();
        return static_cast<int>(std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max()));
    }

    // Also notices when nobody reads our output any more, though there may be nothing to write for hours.
    void waitForNews() const {
        std::array<pollfd, 3> waited = {{{.fd = interruption_.descriptor(), .events = POLLIN, .revents = 0},
                                         {.fd = watch_.descriptor(), .events = POLLIN, .revents = 0},
                                         {.fd = output::descriptor(), .events = 0, .revents = 0}}};
        ::poll(waited.data(), waited.size(), waitMilliseconds());
        if (waited[2].revents != 0)
            throw output::Closed();
    }

    // True when as many events as wanted have been told.
    bool look() {
        const std::vector<Report> reports = watch_.take();
        const bool isSettled = settled_ && *settled_ <= Clock::now();
        if (reports.empty() && !isSettled)
            return false;
        const std::vector<Change> changes = presence_.update(reports, scan());
        settled_.reset();
        if (!reports.empty() || !changes.empty())
            settled_ = Clock::now() + settlingTime;
        else
            presence_.settle();
        for (const Change& change : changes) {
            tell(change);
            if (++told_ == options_.count)
                return true;
        }
        return false;
    }

    void tell(const Change& change) {
        idleSince_ = Clock::now();
        const std::string event = change.connected ? "connect" : "disconnect";
        if (options_.json) {
            output::print(jsonLine({{"time", timeStamp()},
                                    {"event", event},
                                    {"id", deviceIdText(change.id)},
                                    {"handle", change.handle}}));
            return;
        }
        constexpr std::size_t eventWidth = 10;
        constexpr std::size_t idWidth = 8;
        output::print(timeStamp() + "  " + padded(event, eventWidth) + "  " +
                      padded(deviceIdText(change.id), idWidth) + "  handle " + std::to_string(change.handle) +
                      '\n');
    }

    const Options& options_;
    Interruption interruption_;
    BusWatch watch_;
    Presence presence_;
    std::optional<Clock::time_point> settled_;
    Clock::time_point idleSince_;
    std::size_t told_ = 0;
};

} // namespace

void addMonitor(CLI::App& app, Action& action) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("monitor", "Tell when readers are plugged and unplugged");
    command->add_flag("--json", options->json, "Write an object for each event, one a line");
    command->add_option("--count", options->count, "End after N events")
        ->type_name("N")
        ->check(CLI::Range(std::size_t{1}, std::numeric_limits<std::size_t>::max()).description(""));
    command
        ->add_option("--idle-timeout", options->idleTimeout,
                     "End with status 3 when nothing has happened for S seconds")
        ->type_name("S")
        ->check(CLI::Range(0.001, 1e9).description(""));
    command
        ->add_option("--poll-interval", options->pollInterval,
                     "Milliseconds between two looks at the bus, where it is polled (50)")
        ->type_name("MS")
        ->check(CLI::Range(1U, 3'600'000U).description(""));
    command->footer(
        std::string(
            "Each event is a line, written at once: time, 'connect' or 'disconnect', device ID and the "
            "handle that\n"
            "the library tells (0: none). Readers that are there at the start are no events.\n\n"
            "In hot-plug mode 2 of /etc/gavo/gvusb.conf libusb's events are handled; in every other mode the "
            "bus is\n"
            "polled, also where the file turns that off.\n\n"
            "Ends with status 0 by Ctrl-C, after --count events, and when nobody reads its output any "
            "more.\n\n") +
        exitStatusHelp +
        "\nEXAMPLES\n"
        "  gvusb monitor\n"
        "  gvusb monitor --count 1 --idle-timeout 30 && echo 'A reader was plugged or unplugged.'\n"
        "  gvusb monitor --json | jq --unbuffered -r 'select(.event == \"connect\") | .id'\n");
    command->callback([options, &action] { action = [options] { return Monitoring(*options).run(); }; });
}
