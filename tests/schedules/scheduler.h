// Runs threads one at a time and decides which of them runs next.
//
// Control passes to another thread only when the running one locks or unlocks a mutex, waits for or signals a condition,
// sleeps, starts or joins a thread, ends, or calls yield(). interposed.cpp defines the POSIX functions in place of the C
// library's, so the code under test is the one that is shipped. Time is virtual: when every thread waits, the clock jumps
// to the next deadline. So a run depends on nothing but the decisions, and repeats exactly.
//
// One run at a time in a process. Only the running thread accesses the scheduler, so nothing is locked.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <pthread.h>

namespace schedules {

// Decides how a run continues.
class Decider {
public:
    Decider() = default;
    Decider(const Decider&) = delete;
    Decider& operator=(const Decider&) = delete;
    virtual ~Decider() = default;

    // Choose one of `count` threads, at least 2. The first one is the running thread if `canContinue` is true: another
    // choice preempts it.
    virtual std::size_t choose(std::size_t count, bool canContinue) = 0;
};

// Why a run cannot go on. The threads are stuck, so the handler must end the process.
using StuckHandler = std::function<void(const std::string& why)>;

// Run `body` as the first thread of a new scheduler. Threads that it starts are controlled too, and must have ended when it
// returns. Until explore() is called and after it, no thread is preempted.
void runControlled(const std::function<void()>& body, const StuckHandler& stuck);

// Inside runControlled(): run each function in a thread of its own until all of them have returned, as decided.
void explore(Decider& decider, const std::vector<std::function<void()>>& bodies);

// Give other threads the opportunity to run. Does nothing in threads that are not controlled.
void yield();

// The same, except that another choice is no preemption.
void pause();

// Let the other threads run until each of them waits.
void letOthersRun();

// Do not give up control at this mutex or condition. No thread holds the mutex while it gives up control elsewhere.
void ignore(const void* object);

// What the interposed functions call in controlled threads.
namespace control {

using Nanoseconds = std::chrono::nanoseconds;

bool isControlled();
bool isIgnored(const void* object);
Nanoseconds now(); // since the start of the run

void lock(pthread_mutex_t* mutex);
int tryLock(pthread_mutex_t* mutex);
int unlock(pthread_mutex_t* mutex);
// Returns 0, or ETIMEDOUT if the deadline passes first. The longest duration means no deadline.
int wait(pthread_cond_t* condition, pthread_mutex_t* mutex, Nanoseconds deadline);
void wake(pthread_cond_t* condition, bool all);
void sleepUntil(Nanoseconds deadline);
int create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*), void* argument);
int join(pthread_t thread, void** result);
int cancel(pthread_t thread);

} // namespace control

// The C library's functions.
namespace real {

int lock(pthread_mutex_t* mutex);
int tryLock(pthread_mutex_t* mutex);
int unlock(pthread_mutex_t* mutex);
int create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*), void* argument);
int join(pthread_t thread, void** result);
int cancel(pthread_t thread);

} // namespace real

} // namespace schedules
