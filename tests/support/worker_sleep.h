// Replaces usleep() in the test program, so that a test can observe and control the worker thread's sleep.
//
// Thread-safe.
#pragma once

#include <vector>

namespace support {

// Makes sleeps last until the test ends them. Affects sleeps that begin from now on, so create it before the
// manager.
class [[nodiscard]] SteeredSleep {
public:
    SteeredSleep();
    ~SteeredSleep(); // ends the sleep in progress
    SteeredSleep(const SteeredSleep&) = delete;
    SteeredSleep& operator=(const SteeredSleep&) = delete;

    // Wait until the worker sleeps.
    void waitUntilAsleep();

    // End the sleep in progress and wait for the next one to begin: one iteration of the worker's loop.
    void turn();

    // The same without waiting for the next sleep, which may never begin.
    void wake();

    // The lengths of the sleeps so far in microseconds, including the one in progress.
    static std::vector<unsigned int> lengths();
};

// The number of sleeps begun since the start of the program, controlled or not. The first one shows that the
// worker is running.
int sleepsBegun();

} // namespace support
