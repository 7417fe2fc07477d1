#include "commands/watching.h"
#include "failure.h"
#include "fleet/command.h"
#include "fleet/directory.h"
#include "fleet/target.h"
#include "interruption.h"
#include "json.h"
#include "output.h"
#include "printable_text.h"
#include "table.h"
#include "time_stamp.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <poll.h>
#include <unistd.h>

namespace fleet_monitor {
namespace {

constexpr const char* about = R"(
Each event is a line that is printed at once: machine, time, event, device ID, and the device name or what
went wrong. The events are 'connect', 'disconnect' and 'error' of a reader, and 'online' and 'offline' of a
machine. When a machine goes offline, nothing is known about its readers; there are no events for them.

Readers that are present at the start are not events: only with --initial, there is a line with 'present' for
each, which --count and --idle-timeout do not count.

When the connection to the broker is lost, the monitor says so on standard error and connects again. Then it
prints what has changed in the meantime, with the time at which it did. Errors in the meantime are lost, and
so is a reader that was disconnected and connected again.

The monitor ends with status 0 on Ctrl-C, after --count events, and when its output is closed.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb --broker mqtt://localhost monitor
  gvusb --broker mqtt://localhost monitor --machine gate-7 --json
)";

struct Options {
    std::string machine;
    WatchingOptions watching;
    bool initial = false;
    bool json = false;
};

struct Event {
    std::string machine;
    std::string time;
    std::string kind;
    std::string reader = {}; // empty: none
    Json code = nullptr;
    Json text = nullptr;
};

std::string now() {
    return timeStamp(std::chrono::system_clock::now());
}

// A service's time in the local time zone.
std::string localTime(const std::string& text) {
    const auto time = parseTimeStamp(text);
    return time ? timeStamp(*time) : now();
}

std::string memberText(const Json& object, const char* name) {
    const auto found = object.find(name);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string{};
}

std::optional<Event> parseEvent(const fleet::Topic& topic, const std::string& payload) {
    const Json object = Json::parse(payload, nullptr, false);
    if (!object.is_object()) {
        return std::nullopt;
    }
    Event event{.machine = std::string(topic.machine),
                .time = localTime(memberText(object, "time")),
                .kind = memberText(object, "event"),
                .reader = memberText(object, "reader")};
    if (const auto code = object.find("code"); code != object.end() && code->is_number_integer()) {
        event.code = *code;
    }
    if (const auto text = object.find("text"); text != object.end() && text->is_string()) {
        event.text = *text;
    }
    const bool isKnown = event.kind == "connect" || event.kind == "disconnect" || event.kind == "error";
    return isKnown ? std::optional(std::move(event)) : std::nullopt;
}

class Monitoring {
public:
    Monitoring(const Options& options, const FleetOptions& fleet)
        : m_options(options)
        , m_prefix(fleet.prefix)
        , m_connection(fleet)
        , m_watching(options.watching) {}

    ExitStatus run() {
        std::vector<Connection::Received> early = watchFromNow();
        if (::isatty(STDERR_FILENO) != 0) {
            std::fprintf(stderr, "Watching over %s; press Ctrl-C to stop.\n", m_connection.title().c_str());
        }
        if (m_options.initial) {
            printPresent();
        }
        handle(early, true);
        while (!m_isComplete) {
            wait();
            if (m_interruption.requested()) {
                break;
            }
            if (m_connection.loss()) {
                connectAgain();
            } else if (m_isAway && m_connection.isConnected()) {
                resume();
            } else {
                handle(m_connection.take(), false);
            }
            if (!m_isComplete && m_watching.isIdle()) {
                return ExitStatus::timeOut;
            }
        }
        return ExitStatus::ok;
    }

private:
    using Clock = Watching::Clock;

    // Subscribe, read what is known now, and return the events that have arrived since.
    std::vector<Connection::Received> watchFromNow() {
        std::vector<Connection::Received> events;
        m_connection.subscribe({{eventsFilter(m_prefix, m_options.machine), 1}});
        m_directory = readDirectory(m_connection, m_prefix, m_options.machine, &events);
        return events;
    }

    // Also notices that the output was closed: there may be nothing to write for hours.
    void wait() {
        std::array<pollfd, 2> waited = {{{.fd = m_interruption.descriptor(), .events = POLLIN, .revents = 0},
                                         {.fd = output::descriptor(), .events = 0, .revents = 0}}};
        m_connection.wait(m_watching.millisecondsUntil(m_retry), waited);
        if (waited[1].revents != 0) {
            throw output::Closed();
        }
    }

    void connectAgain() {
        constexpr std::chrono::milliseconds firstPause(100);
        constexpr std::chrono::milliseconds longestPause(10'000);
        if (!m_isAway) {
            m_isAway = true;
            m_pause = firstPause;
            m_retry = Clock::now() + m_pause;
            std::fprintf(stderr, "gvusb: %s; connecting again\n", m_connection.lossMessage().c_str());
        } else if (!m_retry) { // the attempt has failed
            m_pause = std::min(2 * m_pause, longestPause);
            m_retry = Clock::now() + m_pause;
        } else if (*m_retry <= Clock::now()) {
            m_retry.reset();
            m_connection.reconnect();
        }
    }

    // Print what has changed without a connection.
    void resume() {
        const Directory before = m_directory;
        std::vector<Connection::Received> events;
        try {
            events = watchFromNow();
        } catch (const Failure&) {
            if (m_connection.loss()) {
                return; // connectAgain() is next
            }
            throw;
        }
        m_isAway = false;
        std::fprintf(stderr, "gvusb: %s: connected again\n", m_connection.title().c_str());
        for (const auto& [name, machine] : m_directory.machines()) {
            const auto known = before.machines().find(name);
            if (machine.isOnline != (known != before.machines().end() && known->second.isOnline)) {
                print({.machine = name, .time = now(), .kind = machine.isOnline ? "online" : "offline"});
            }
            for (const auto& [id, reader] : machine.readers) {
                const Directory::Reader* const earlier = before.find(name, id);
                if (reader.isConnected != (earlier != nullptr && earlier->isConnected)) {
                    print({.machine = name,
                           .time = localTime(reader.since),
                           .kind = reader.isConnected ? "connect" : "disconnect",
                           .reader = id});
                }
            }
        }
        handle(events, true);
    }

    // With `onlyChanges`, the documents may already contain what an event tells.
    void handle(const std::vector<Connection::Received>& messages, bool onlyChanges) {
        for (const Connection::Received& message : messages) {
            const std::optional<fleet::Topic> topic = fleet::parseTopic(m_prefix, message.topic);
            if (!topic || !fleet::isMachineName(topic->machine)) {
                continue;
            }
            if (topic->kind == fleet::Topic::Kind::events) {
                handleEvent(parseEvent(*topic, message.payload), onlyChanges);
            } else if (topic->kind == fleet::Topic::Kind::status) {
                handleStatus(std::string(topic->machine), message);
            } else {
                m_directory.add(m_prefix, message.topic, message.payload);
            }
        }
    }

    void handleEvent(const std::optional<Event>& event, bool onlyChanges) {
        if (!event) {
            return;
        }
        if (event->kind != "error") {
            const bool connects = event->kind == "connect";
            bool& isConnected = m_directory.machines()[event->machine].readers[event->reader].isConnected;
            if (std::exchange(isConnected, connects) == connects && onlyChanges) {
                return;
            }
        }
        print(*event);
    }

    void handleStatus(const std::string& machine, const Connection::Received& message) {
        const bool wasOnline = m_directory.machines()[machine].isOnline;
        m_directory.add(m_prefix, message.topic, message.payload);
        if (m_directory.machines()[machine].isOnline != wasOnline) {
            print({.machine = machine, .time = now(), .kind = wasOnline ? "offline" : "online"});
        }
    }

    void printPresent() {
        for (const auto& [name, machine] : m_directory.machines()) {
            for (const auto& [id, reader] : machine.readers) {
                if (machine.isOnline && reader.isConnected) {
                    printLine({.machine = name, .time = now(), .kind = "present", .reader = id});
                }
            }
        }
    }

    void print(const Event& event) {
        if (!m_isComplete) {
            printLine(event);
            m_isComplete = m_watching.count();
        }
    }

    void printLine(const Event& event) {
        const Directory::Reader* const reader = m_directory.find(event.machine, event.reader);
        const bool isKnown = reader != nullptr && !reader->facts.id.empty();
        const std::string id = event.reader.substr(0, event.reader.find('@'));
        if (m_options.json) {
            output::print(jsonLine({{"machine", event.machine},
                                    {"time", event.time},
                                    {"event", event.kind},
                                    {"reader", event.reader.empty() ? Json(nullptr) : Json(event.reader)},
                                    {"id", event.reader.empty() ? Json(nullptr) : Json(id)},
                                    {"family", isKnown ? Json(reader->facts.family) : Json(nullptr)},
                                    {"name", isKnown ? Json(reader->facts.name) : Json(nullptr)},
                                    {"code", event.code},
                                    {"text", event.text}}));
            return;
        }
        constexpr std::size_t eventWidth = 10;
        constexpr std::size_t idWidth = 8;
        m_machineWidth = std::max(m_machineWidth, event.machine.size());
        const std::string rest = event.text.is_string() ? event.text.get<std::string>()
                                 : isKnown              ? reader->facts.name
                                                        : std::string{};
        std::string line = padded(event.machine, m_machineWidth) + "  " + event.time + "  " +
                           padded(event.kind, eventWidth) + "  " + padded(printable(event.reader), idWidth) +
                           "  " + printable(rest);
        line.erase(line.find_last_not_of(' ') + 1);
        output::print(line + '\n');
    }

    const Options& m_options;
    std::string m_prefix;
    Connection m_connection;
    Interruption m_interruption; // after it: a signal ends an attempt to connect
    Watching m_watching;
    Directory m_directory;
    bool m_isAway = false;
    std::chrono::milliseconds m_pause{};
    std::optional<Clock::time_point> m_retry;
    std::size_t m_machineWidth = 8;
    bool m_isComplete = false;
};

} // namespace
} // namespace fleet_monitor

void addFleetMonitor(CLI::App& app, const FleetOptions& fleet, ExitStatus& status) {
    using namespace fleet_monitor;
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("monitor", "Report readers and machines as they connect and disconnect");
    command->add_option("--machine", options->machine, "Only readers of this machine")
        ->type_name("NAME")
        ->check(isMachine);
    command->add_flag("--json", options->json, "Print an object for each event, one per line");
    command->add_flag("--initial", options->initial, "Start with a line for each reader that is present");
    addWatchingOptions(*command, options->watching);
    command->footer(joinSections({about, exitStatusHelp, examples}));
    command->callback([options, &fleet, &status] { status = Monitoring(*options, fleet).run(); });
}
