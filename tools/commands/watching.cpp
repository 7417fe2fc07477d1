#include "commands/watching.h"

#include "poll_timeout.h"

#include <algorithm>
#include <limits>

void addWatchingOptions(CLI::App& command, WatchingOptions& options) {
    command.add_option("--count", options.count, "Exit after N events")
        ->type_name("N")
        ->check(CLI::Range(std::size_t{1}, std::numeric_limits<std::size_t>::max()).description(""));
    command
        .add_option("--idle-timeout", options.idleTimeout,
                    "Exit with status 3 after S seconds without an event")
        ->type_name("S")
        ->check(CLI::Range(0.001, 1e9).description(""));
}

std::optional<Watching::Clock::time_point> Watching::idleEnd() const {
    if (!m_options.idleTimeout) {
        return std::nullopt;
    }
    const std::chrono::duration<double> longest(*m_options.idleTimeout);
    return m_idleSince + std::chrono::duration_cast<Clock::duration>(longest);
}

bool Watching::isIdle() const {
    const auto end = idleEnd();
    return end && *end <= Clock::now();
}

int Watching::millisecondsUntil(std::optional<Clock::time_point> time) const {
    if (const auto end = idleEnd()) {
        time = std::min(time.value_or(*end), *end);
    }
    if (!time) {
        return -1;
    }
    return ::millisecondsUntil(*time);
}
