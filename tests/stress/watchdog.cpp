#include "watchdog.h"

#include <cstdio>
#include <cstdlib>

namespace stress {
namespace {

using Clock = std::chrono::steady_clock;

struct Progress {
    unsigned long calls = 0;
    Clock::time_point since = Clock::now();
};

[[noreturn]] void giveUp(const std::vector<const Slot*>& slots) {
    std::fputs("A thread makes no progress.\n", stderr);
    for (const Slot* slot : slots) {
        const char* const function = slot->function;
        std::fprintf(stderr, "  %s: %s, %lu calls\n", slot->name.c_str(),
                     function == nullptr ? "idle" : function, slot->calls.load());
    }
    std::abort();
}

} // namespace

Watchdog::Watchdog(std::vector<const Slot*> slots, std::chrono::milliseconds patience)
    : slots_(std::move(slots))
    , patience_(patience)
    , thread_([this] { watch(); }) {
}

Watchdog::~Watchdog() {
    stopped_ = true;
    thread_.join();
}

void Watchdog::watch() const {
    std::vector<Progress> progress(slots_.size());
    while (!stopped_) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        for (std::size_t i = 0; i < slots_.size(); ++i) {
            const unsigned long calls = slots_[i]->calls;
            if (calls != progress[i].calls || slots_[i]->function.load() == nullptr) {
                progress[i] = {.calls = calls, .since = Clock::now()};
            } else if (Clock::now() - progress[i].since > patience_) {
                giveUp(slots_);
            }
        }
    }
}

} // namespace stress
