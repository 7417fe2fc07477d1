// The POSIX functions by which threads wait, in place of the C library's. In threads that are not controlled they are the
// C library's.

#include "scheduler.h"

#include <cerrno>
#include <ctime>

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

namespace {

using schedules::control::isControlled;
using schedules::control::Nanoseconds;
namespace control = schedules::control;

// The function that would have been called otherwise: a sanitizer's or the C library's.
template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

#define NEXT(name) (next<decltype(name)>(#name))

Nanoseconds durationOf(const timespec& time) {
    return std::chrono::seconds(time.tv_sec) + Nanoseconds(time.tv_nsec);
}

bool isControlledObject(const void* object) {
    return isControlled() && !control::isIgnored(object);
}

} // namespace

namespace schedules::real {

int lock(pthread_mutex_t* mutex) {
    static auto* const function = NEXT(pthread_mutex_lock);
    return function(mutex);
}

int tryLock(pthread_mutex_t* mutex) {
    static auto* const function = NEXT(pthread_mutex_trylock);
    return function(mutex);
}

int unlock(pthread_mutex_t* mutex) {
    static auto* const function = NEXT(pthread_mutex_unlock);
    return function(mutex);
}

int create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument) {
    static auto* const function = NEXT(pthread_create);
    return function(thread, attributes, start, argument);
}

int join(pthread_t thread, void** result) {
    static auto* const function = NEXT(pthread_join);
    return function(thread, result);
}

int cancel(pthread_t thread) {
    static auto* const function = NEXT(pthread_cancel);
    return function(thread);
}

} // namespace schedules::real

namespace real = schedules::real;

extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    if (!isControlledObject(mutex)) {
        return real::lock(mutex);
    }
    control::lock(mutex);
    return 0;
}

int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
    return isControlledObject(mutex) ? control::tryLock(mutex) : real::tryLock(mutex);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    return isControlledObject(mutex) ? control::unlock(mutex) : real::unlock(mutex);
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    static auto* const function = NEXT(pthread_cond_wait);
    return isControlled() ? control::wait(condition, mutex, Nanoseconds::max()) : function(condition, mutex);
}

// Only the C++ library waits with a deadline, by clocks that interposed functions read too.
int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
    static auto* const function = NEXT(pthread_cond_timedwait);
    return isControlled() ? control::wait(condition, mutex, durationOf(*deadline))
                          : function(condition, mutex, deadline);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* deadline) {
    static auto* const function = NEXT(pthread_cond_clockwait);
    return isControlled() ? control::wait(condition, mutex, durationOf(*deadline))
                          : function(condition, mutex, clock, deadline);
}

int pthread_cond_signal(pthread_cond_t* condition) noexcept {
    static auto* const function = NEXT(pthread_cond_signal);
    if (!isControlledObject(condition)) {
        return function(condition);
    }
    control::wake(condition, false);
    return 0;
}

int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
    static auto* const function = NEXT(pthread_cond_broadcast);
    if (!isControlledObject(condition)) {
        return function(condition);
    }
    control::wake(condition, true);
    return 0;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
    return isControlled() ? control::create(thread, attributes, start, argument)
                          : real::create(thread, attributes, start, argument);
}

int pthread_join(pthread_t thread, void** result) {
    return isControlled() ? control::join(thread, result) : real::join(thread, result);
}

int pthread_cancel(pthread_t thread) {
    return isControlled() ? control::cancel(thread) : real::cancel(thread);
}

// usleep() of the test support calls it too.
int nanosleep(const timespec* duration, timespec* left) {
    static auto* const function = NEXT(nanosleep);
    if (!isControlled()) {
        return function(duration, left);
    }
    pthread_testcancel();
    control::sleepUntil(control::now() + durationOf(*duration));
    pthread_testcancel();
    return 0;
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* time, timespec* left) {
    static auto* const function = NEXT(clock_nanosleep);
    if (!isControlled()) {
        return function(clock, flags, time, left);
    }
    pthread_testcancel();
    const Nanoseconds start = (flags & TIMER_ABSTIME) != 0 ? Nanoseconds(0) : control::now();
    control::sleepUntil(start + durationOf(*time));
    pthread_testcancel();
    return 0;
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    static auto* const function = NEXT(clock_gettime);
    if (!isControlled() || (clock != CLOCK_MONOTONIC && clock != CLOCK_REALTIME)) {
        return function(clock, time);
    }
    const Nanoseconds now = control::now();
    time->tv_sec = static_cast<time_t>(now.count() / 1'000'000'000);
    time->tv_nsec = static_cast<long>(now.count() % 1'000'000'000);
    return 0;
}

int sched_yield() noexcept {
    static auto* const function = NEXT(sched_yield);
    if (!isControlled()) {
        return function();
    }
    schedules::yield();
    return 0;
}

} // extern "C"
