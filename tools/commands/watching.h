// How long `gvusb monitor` goes on.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

#include <CLI/CLI.hpp>

struct WatchingOptions {
    std::optional<std::size_t> count;
    std::optional<double> idleTimeout; // in seconds
};

// Add --count and --idle-timeout.
void addWatchingOptions(CLI::App& command, WatchingOptions& options);

class Watching {
public:
    using Clock = std::chrono::steady_clock;

    explicit Watching(const WatchingOptions& options)
        : m_options(options)
        , m_idleSince(Clock::now()) {}

    // An event was printed. Returns true once there are as many as wanted.
    bool count() {
        m_idleSince = Clock::now();
        return ++m_counted == m_options.count;
    }

    // Whether nothing has happened for too long.
    bool isIdle() const;

    // For poll(): the milliseconds until isIdle() or a point in time, the earlier of both; -1 if neither will come.
    int millisecondsUntil(std::optional<Clock::time_point> time) const;

private:
    std::optional<Clock::time_point> idleEnd() const;

    WatchingOptions m_options;
    Clock::time_point m_idleSince;
    std::size_t m_counted = 0;
};
