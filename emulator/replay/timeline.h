// When the readers of a recording come and leave while it is played.
//
// A reader comes or leaves after the requests that preceded it in the recording, and before those that followed it.
// Any thread.
#pragma once

#include "model/transfer.h"
#include "replay/recorded.h"

#include <functional>
#include <mutex>
#include <optional>
#include <vector>

namespace emulator::replay {

enum class Mode { matching, strict };

// How much faster than recorded a replay is. 0 is as fast as possible.
class Pace {
public:
    explicit Pace(double factor = 1)
        : m_factor(factor) {}

    Time::duration scaled(Duration recorded) const {
        if (m_factor == 0) {
            return {};
        }
        constexpr std::chrono::duration<double, std::nano> longest = std::chrono::hours(24 * 365 * 10);
        return std::chrono::duration_cast<Time::duration>(
            std::min(std::chrono::duration<double, std::nano>(recorded) / m_factor, longest));
    }

private:
    double m_factor;
};

class Timeline {
public:
    // How much later than recorded a reader comes or leaves if the request before does not come. Not in strict mode.
    static constexpr std::chrono::seconds patience{5};

    // `wake` is called, in any thread, when something has become due.
    Timeline(const std::vector<Happening>& happenings, Mode mode, Pace pace, std::function<void()> wake);

    void start(Time now);

    // Whether everything before this position has happened. If not, it is due now.
    bool reached(Position position);

    bool passed(Position position) const; // likewise, but nothing becomes due

    // A request of the recording has been made.
    void noteRequest(Time now);

    // The next that is due, until done() is called.
    std::optional<Happening> due(Time now) const;
    std::optional<Time> nextDeadline() const;

    // What was due has happened.
    void done();

    // A reader has come or left for another reason. If this is what would happen to it next, it has happened.
    void noteState(std::size_t reader, bool plugged);

    Time::duration sinceStart(Time now) const;

private:
    struct Step {
        Happening happening;
        std::optional<Time> anchor = std::nullopt; // when the request before was made
        bool done = false;
    };

    void skipDone();
    std::optional<Time> timeOf(const Step& step) const;

    Mode m_mode;
    Pace m_pace;
    std::function<void()> m_wake;

    mutable std::mutex m_mutex; // of all below
    std::vector<Step> m_steps;
    std::size_t m_next = 0;
    std::size_t m_requests = 0;
    Time m_start{};
    Time m_last{}; // when the last request was made, or the start
    bool m_started = false;
    Position m_forced = 0; // everything before is due
};

} // namespace emulator::replay
