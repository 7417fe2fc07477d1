// Waits for other threads with a time limit, so that a test fails instead of hanging.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <thread>

namespace waiting {

inline void doze() {
    std::this_thread::sleep_for(std::chrono::microseconds(100));
}

// Whether the condition becomes true within a time that is exceeded only by a hang.
template <class Condition>
bool eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        doze();
    }
    return true;
}

// Blocks each caller of pass() until the test lets it through.
class Turnstile {
public:
    void pass() {
        const int number = ++arrived_;
        eventually([&] { return allowed_ >= number; });
    }

    // Whether a thread is blocked in pass().
    bool isReached() {
        return eventually([&] { return arrived_ > allowed_; });
    }

    void letOneThrough() { ++allowed_; }

private:
    std::atomic<int> arrived_ = 0;
    std::atomic<int> allowed_ = 0;
};

// The number of threads of this process. A joined thread may still be counted for a moment.
inline std::ptrdiff_t threads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

inline std::ptrdiff_t settledThreads() {
    std::ptrdiff_t before = -1;
    std::ptrdiff_t now = threads();
    while (now != before) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        before = now;
        now = threads();
    }
    return now;
}

} // namespace waiting
