#include "clock.h"

#include <ctime>
#include <mutex>
#include <sys/time.h>

namespace {

// Constant-initialized and trivially destroyed, so usable before and after main().
constinit std::mutex mutex;
constinit bool fixed = false;
constinit timeval moment = {0, 0};
constinit int reads = 0;

} // namespace

extern "C" int gettimeofday(timeval* __restrict time, void* __restrict) noexcept {
    const std::lock_guard lock(mutex);
    ++reads;
    if (fixed) {
        *time = moment;
        return 0;
    }
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    time->tv_sec = now.tv_sec;
    time->tv_usec = now.tv_nsec / 1000;
    return 0;
}

namespace support {

void setTime(long seconds, long microseconds) {
    const std::lock_guard lock(mutex);
    fixed = true;
    moment = {seconds, microseconds};
    reads = 0;
}

void useRealTime() {
    const std::lock_guard lock(mutex);
    fixed = false;
    reads = 0;
}

int timeReads() {
    const std::lock_guard lock(mutex);
    return reads;
}

} // namespace support
