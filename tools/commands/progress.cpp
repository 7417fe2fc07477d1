#include "commands/progress.h"

#include <cstdio>
#include <string>

#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds interval(100);

} // namespace

Progress::Progress(std::size_t total, bool wanted)
    : total_(total)
    , wanted_(wanted && ::isatty(STDERR_FILENO) != 0)
    , next_(Clock::now() + interval) {
}

Progress::~Progress() {
    clear();
}

void Progress::show(std::size_t done, std::size_t failed) {
    if (!wanted_ || Clock::now() < next_)
        return;
    next_ = Clock::now() + interval;
    std::string line = "\r" + std::to_string(done) + " of " + std::to_string(total_) + " exchanges";
    if (failed != 0)
        line += ", " + std::to_string(failed) + " failed";
    std::fputs((line + "\x1b[K").c_str(), stderr);
    shown_ = true;
}

void Progress::clear() {
    if (shown_)
        std::fputs("\r\x1b[K", stderr);
    shown_ = false;
}
