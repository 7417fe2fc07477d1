#include "replay/timeline.h"

#include <algorithm>

namespace emulator::replay {

Timeline::Timeline(const std::vector<Happening>& happenings, Mode mode, Pace pace, std::function<void()> wake)
    : m_mode(mode)
    , m_pace(pace)
    , m_wake(std::move(wake)) {
    for (const Happening& each : happenings) {
        m_steps.push_back({.happening = each});
    }
}

void Timeline::start(Time now) {
    const std::lock_guard lock(m_mutex);
    m_started = true;
    m_start = now;
    if (m_requests == 0) {
        m_last = now;
    }
    for (Step& step : m_steps) {
        if (step.happening.requestsBefore == 0 && !step.anchor) {
            step.anchor = now;
        }
    }
}

bool Timeline::reached(Position position) {
    const std::lock_guard lock(m_mutex);
    if (m_next == m_steps.size() || m_steps[m_next].happening.position > position) {
        return true;
    }
    m_forced = std::max(m_forced, position);
    m_wake();
    return false;
}

bool Timeline::passed(Position position) const {
    const std::lock_guard lock(m_mutex);
    return m_next == m_steps.size() || m_steps[m_next].happening.position > position;
}

void Timeline::noteRequest(Time now) {
    const std::lock_guard lock(m_mutex);
    ++m_requests;
    m_last = now;
    bool anchored = false;
    for (std::size_t i = m_next; i < m_steps.size(); ++i) {
        Step& step = m_steps[i];
        if (step.happening.requestsBefore > m_requests) {
            break;
        }
        if (!step.anchor) {
            step.anchor = now;
            anchored = true;
        }
    }
    if (anchored) {
        m_wake();
    }
}

std::optional<Time> Timeline::timeOf(const Step& step) const {
    if (!m_started) {
        return std::nullopt;
    }
    if (step.happening.position <= m_forced) {
        return Time{};
    }
    if (step.anchor) {
        return *step.anchor + m_pace.scaled(step.happening.after);
    }
    if (m_mode == Mode::strict) {
        return std::nullopt;
    }
    return m_last + m_pace.scaled(step.happening.after) + patience;
}

std::optional<Happening> Timeline::due(Time now) const {
    const std::lock_guard lock(m_mutex);
    if (m_next == m_steps.size()) {
        return std::nullopt;
    }
    const std::optional<Time> time = timeOf(m_steps[m_next]);
    return time && *time <= now ? std::optional(m_steps[m_next].happening) : std::nullopt;
}

std::optional<Time> Timeline::nextDeadline() const {
    const std::lock_guard lock(m_mutex);
    return m_next == m_steps.size() ? std::nullopt : timeOf(m_steps[m_next]);
}

void Timeline::skipDone() {
    while (m_next < m_steps.size() && m_steps[m_next].done) {
        ++m_next;
    }
}

void Timeline::done() {
    const std::lock_guard lock(m_mutex);
    m_steps[m_next].done = true;
    skipDone();
}

void Timeline::noteState(std::size_t reader, bool plugged) {
    const std::lock_guard lock(m_mutex);
    for (std::size_t i = m_next; i < m_steps.size(); ++i) {
        Step& step = m_steps[i];
        if (step.happening.reader == reader && !step.done) {
            step.done = step.happening.comes == plugged;
            break;
        }
    }
    skipDone();
}

Time::duration Timeline::sinceStart(Time now) const {
    const std::lock_guard lock(m_mutex);
    return m_started ? now - m_start : Time::duration{};
}

} // namespace emulator::replay
