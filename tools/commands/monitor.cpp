#include "command.h"
#include "commands/bus_watch.h"
#include "commands/watching.h"
#include "failure.h"
#include "hexadecimal.h"
#include "interruption.h"
#include "json.h"
#include "output.h"
#include "printable_text.h"
#include "table.h"
#include "time_stamp.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>

#include <poll.h>
#include <unistd.h>

namespace monitor_command {
namespace {

using Clock = Watching::Clock;

constexpr const char* about = R"(
Each event is a line that is printed at once: time, 'connect' or 'disconnect', device ID, the handle that the
library reports (0 if none), and the device name. Readers that are present at the start are not events: only
with --initial, there is a line with 'present' for each, which --count and --idle-timeout do not count.

In hot-plug mode 2 of /etc/gavo/gvusb.conf, the monitor handles libusb's events. In every other mode it polls
the bus, even if the file turns polling off.

The monitor ends with status 0 on Ctrl-C, after --count events, and when its output is closed.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb monitor
  gvusb monitor --count 1 --idle-timeout 30 && echo 'A reader was plugged or unplugged.'
  gvusb monitor --json | jq --unbuffered -r 'select(.event == "connect") | .id'
)";

struct Options {
    unsigned int pollInterval = 50;
    WatchingOptions watching;
    bool initial = false;
    bool json = false;
};

// What a scan says about a reader, by its device ID. With several readers of one ID, the last one counts.
struct Texts {
    std::string family;
    std::string name;
};
using TextsOfIds = std::map<unsigned int, Texts>;

// The bus is scanned once more after this long without a report: the library updates what it has reported
// only after its handlers have run, and a reader that has just arrived may be unreadable for a moment.
constexpr std::chrono::milliseconds settlingTime(100);

std::string now() {
    return timeStamp(std::chrono::system_clock::now());
}

std::string scanned(int index, const char* key) {
    std::array<char, GVUSB_PARAMETER_SIZE> text{};
    return GVUSB_GetScanListPara(index, key, text.data()) == GVUSB_OK ? text.data() : std::string{};
}

// Adds the texts of the readers to those that are known. Those of readers that are gone stay.
Presence::Ids scan(TextsOfIds& texts) {
    const int code = GVUSB_Scan(GVUSB_SCAN_ALL, nullptr);
    if (code != GVUSB_ERR_NO_DEVICE_FOUND) {
        check("scan", code);
    }
    Presence::Ids ids;
    const int size = GVUSB_GetScanListSize();
    for (int index = 0; index < size; ++index) {
        // A poll may have emptied the entry in the meantime.
        if (const auto id = parseDeviceId(scanned(index, "DEVICE-ID"))) {
            ids.push_back(*id);
            texts[*id] = {.family = scanned(index, "FAMILYNAME"), .name = scanned(index, "DEVICENAME")};
        }
    }
    return ids;
}

class Monitoring {
public:
    explicit Monitoring(const Options& options)
        : m_options(options)
        , m_watch(options.pollInterval)
        , m_initial(scan(m_texts))
        , m_presence(m_initial)
        , m_watching(options.watching) {}

    ExitStatus run() {
        if (::isatty(STDERR_FILENO) != 0) {
            std::fprintf(stderr, "Watching by %s; press Ctrl-C to stop.\n", m_watch.method().c_str());
        }
        if (m_options.initial) {
            for (const unsigned int id : m_initial) {
                printLine("present", id, 0);
            }
        }
        for (;;) {
            wait();
            if (m_interruption.requested()) {
                return ExitStatus::ok;
            }
            if (printChanges()) {
                return ExitStatus::ok;
            }
            if (m_watching.isIdle()) {
                return ExitStatus::timeOut;
            }
        }
    }

private:
    // Also notices that the output was closed: there may be nothing to write for hours.
    void wait() const {
        std::array<pollfd, 3> waited = {{{.fd = m_interruption.descriptor(), .events = POLLIN, .revents = 0},
                                         {.fd = m_watch.descriptor(), .events = POLLIN, .revents = 0},
                                         {.fd = output::descriptor(), .events = 0, .revents = 0}}};
        ::poll(waited.data(), waited.size(), m_watching.millisecondsUntil(m_settled));
        if (waited[2].revents != 0) {
            throw output::Closed();
        }
    }

    // Returns true once the number of events given by --count is reached.
    bool printChanges() {
        const std::vector<Report> reports = m_watch.take();
        const bool isSettled = m_settled && *m_settled <= Clock::now();
        if (reports.empty() && !isSettled) {
            return false;
        }
        const std::vector<Change> changes = m_presence.update(reports, scan(m_texts));
        m_settled.reset();
        if (!reports.empty() || !changes.empty()) {
            m_settled = Clock::now() + settlingTime;
        } else {
            m_presence.settle();
        }
        for (const Change& change : changes) {
            printLine(change.connected ? "connect" : "disconnect", change.id, change.handle);
            if (m_watching.count()) {
                return true;
            }
        }
        return false;
    }

    void printLine(const std::string& event, unsigned int id, int handle) const {
        const auto found = m_texts.find(id);
        const bool isKnown = found != m_texts.end();
        if (m_options.json) {
            output::print(jsonLine({{"time", now()},
                                    {"event", event},
                                    {"id", deviceIdText(id)},
                                    {"handle", handle},
                                    {"family", isKnown ? Json(found->second.family) : Json(nullptr)},
                                    {"name", isKnown ? Json(found->second.name) : Json(nullptr)}}));
            return;
        }
        constexpr std::size_t eventWidth = 10;
        constexpr std::size_t idWidth = 8;
        output::print(now() + "  " + padded(event, eventWidth) + "  " + padded(deviceIdText(id), idWidth) +
                      "  handle " + std::to_string(handle) +
                      (isKnown ? "  " + printable(found->second.name) : std::string{}) + '\n');
    }

    const Options& m_options;
    Interruption m_interruption;
    BusWatch m_watch;
    TextsOfIds m_texts;
    Presence::Ids m_initial;
    Presence m_presence;
    std::optional<Clock::time_point> m_settled;
    Watching m_watching;
};

} // namespace
} // namespace monitor_command

void addMonitor(CLI::App& app, ExitStatus& status) {
    using namespace monitor_command;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("monitor", "Report readers as they connect and disconnect");
    command->add_flag("--json", options->json, "Print an object for each event, one per line");
    command->add_flag("--initial", options->initial, "Start with a line for each reader that is present");
    addWatchingOptions(*command, options->watching);
    command
        ->add_option("--poll-interval", options->pollInterval,
                     "Milliseconds between polls, if the bus is polled (50)")
        ->type_name("MS")
        ->check(CLI::Range(1U, 3'600'000U).description(""));
    command->footer(joinSections({about, exitStatusHelp, examples}));
    command->callback([options, &status] { status = Monitoring(*options).run(); });
}
