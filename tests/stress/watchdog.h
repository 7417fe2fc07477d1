// Ends the program if a thread makes no progress, and prints what each thread is doing.
//
// Each thread stores its current call in its own slot; the watchdog's thread reads all slots.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace stress {

struct Slot {
    explicit Slot(std::string thread)
        : name(std::move(thread)) {}
    const std::string name;
    std::atomic<const char*> function = nullptr; // null: idle, for any length of time
    std::atomic<unsigned long> calls = 0;
};

// Stores the current call in a slot for the length of a block.
class Calling {
public:
    Calling(Slot& slot, const char* function)
        : slot_(slot) {
        slot.function = function;
    }
    ~Calling() {
        ++slot_.calls;
        slot_.function = nullptr;
    }
    Calling(const Calling&) = delete;
    Calling& operator=(const Calling&) = delete;

private:
    Slot& slot_;
};

class Watchdog {
public:
    Watchdog(std::vector<const Slot*> slots, std::chrono::milliseconds patience);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    void watch() const;

    const std::vector<const Slot*> slots_;
    const std::chrono::milliseconds patience_;
    std::atomic<bool> stopped_ = false;
    std::thread thread_;
};

} // namespace stress
