#include "worker_sleep.h"

#include <atomic>
#include <ctime>
#include <mutex>
#include <pthread.h>
#include <unistd.h>

namespace {

constinit std::atomic<bool> steered = false;
constinit std::atomic<int> begun = 0;
constinit std::atomic<int> asleep = 0; // controlled sleeps in progress
constinit std::atomic<int> wakings = 0;
std::mutex lengthsMutex;
std::vector<unsigned int> lengthsSoFar;

void pauseShortly() {
    const timespec pause = {0, 50'000};
    nanosleep(&pause, nullptr);
}

// A destructor, so that it also runs when the sleeping thread is canceled.
struct Asleep {
    Asleep() { ++asleep; }
    ~Asleep() { --asleep; }
    Asleep(const Asleep&) = delete;
    Asleep& operator=(const Asleep&) = delete;
};

bool takeWaking() {
    int left = wakings;
    while (left > 0 && !wakings.compare_exchange_weak(left, left - 1)) {
    }
    return left > 0;
}

} // namespace

// A cancellation point, like the real usleep().
extern "C" int usleep(useconds_t microseconds) {
    if (!steered) {
        ++begun;
        const timespec length = {static_cast<std::time_t>(microseconds / 1'000'000),
                                 static_cast<long>(microseconds % 1'000'000) * 1000};
        return nanosleep(&length, nullptr);
    }
    {
        const std::lock_guard lock(lengthsMutex);
        lengthsSoFar.push_back(microseconds);
    }
    ++begun; // first, so that a waiting test finds the sleep counted
    const Asleep now;
    // Allow cancellation here and not in the pause: if a thread is canceled in an intercepted call, the
    // thread sanitizer loses track of it and reports false races at its end.
    while (steered && !takeWaking()) {
        int before = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
        pauseShortly();
        pthread_setcancelstate(before, nullptr);
        pthread_testcancel();
    }
    return 0;
}

namespace support {

SteeredSleep::SteeredSleep() {
    const std::lock_guard lock(lengthsMutex);
    lengthsSoFar.clear();
    wakings = 0;
    steered = true;
}

SteeredSleep::~SteeredSleep() {
    steered = false;
}

void SteeredSleep::waitUntilAsleep() {
    while (asleep == 0) {
        pauseShortly();
    }
}

void SteeredSleep::turn() {
    waitUntilAsleep();
    const int before = begun;
    wake();
    while (begun == before) {
        pauseShortly();
    }
}

void SteeredSleep::wake() {
    ++wakings;
    while (wakings > 0) {
        pauseShortly();
    }
}

std::vector<unsigned int> SteeredSleep::lengths() {
    const std::lock_guard lock(lengthsMutex);
    return lengthsSoFar;
}

int sleepsBegun() {
    return begun;
}

} // namespace support
