#include "commands/progress.h"

#include <cstdio>
#include <string>

#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds interval(100);

} // namespace

Progress::Progress(std::size_t total, bool wanted)
    : m_total(total)
    , m_wanted(wanted && ::isatty(STDERR_FILENO) != 0)
    , m_next(Clock::now() + interval) {
}

Progress::~Progress() {
    clear();
}

void Progress::show(std::size_t done, std::size_t failed) {
    if (!m_wanted || Clock::now() < m_next) {
        return;
    }
    m_next = Clock::now() + interval;
    std::string line = "\r" + std::to_string(done) + " of " + std::to_string(m_total) + " exchanges";
    if (failed != 0) {
        line += ", " + std::to_string(failed) + " failed";
    }
    std::fputs((line + "\x1b[K").c_str(), stderr);
    m_shown = true;
}

void Progress::clear() {
    if (m_shown) {
        std::fputs("\r\x1b[K", stderr);
    }
    m_shown = false;
}
