// The worker thread's sleep, which a test can watch and steer: usleep of the test program.
//
// May be used from any thread.
#pragma once

#include <vector>

namespace support {

// While it lives, sleeps end only when the test says so. It steers sleeps that begin from now on, so build it
// before the manager.
class [[nodiscard]] SteeredSleep {
public:
    SteeredSleep();
    ~SteeredSleep(); // ends the sleep in progress
    SteeredSleep(const SteeredSleep&) = delete;
    SteeredSleep& operator=(const SteeredSleep&) = delete;

    // Returns once the worker sleeps.
    void waitUntilAsleep();

    // Ends the sleep in progress and returns when the next one has begun: one turn of the worker's loop.
    void turn();

    // The same without waiting for the next sleep, which may never come.
    void wake();

    // The sleeps so far, in microseconds, the one in progress included.
    static std::vector<unsigned int> lengths();
};

// How many sleeps have begun since the start of the program, steered or not. The worker's first one tells
// that the worker runs.
int sleepsBegun();

} // namespace support
