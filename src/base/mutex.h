// A POSIX mutex for clang's thread-safety analysis, its scoped lock, and a condition variable.
//
// The mutex has default attributes, so it is not recursive, and the size and layout of a pthread_mutex_t.
#pragma once

#include "base/thread_safety.h"

#include <pthread.h>

class GVUSB_CAPABILITY("mutex") Mutex {
public:
    constexpr Mutex() noexcept = default;
    ~Mutex() { pthread_mutex_destroy(&m_mutex); }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() noexcept GVUSB_ACQUIRE() { pthread_mutex_lock(&m_mutex); }
    bool tryLock() noexcept GVUSB_TRY_ACQUIRE(true) { return pthread_mutex_trylock(&m_mutex) == 0; }
    void unlock() noexcept GVUSB_RELEASE() { pthread_mutex_unlock(&m_mutex); }

private:
    friend class Condition;
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
};
static_assert(sizeof(Mutex) == sizeof(pthread_mutex_t));

class GVUSB_SCOPED_CAPABILITY MutexLock {
public:
    enum TryFirst { tryFirst };

    explicit MutexLock(Mutex& mutex) noexcept GVUSB_ACQUIRE(mutex)
        : m_mutex(mutex) {
        m_mutex.lock();
    }
    MutexLock(Mutex& mutex, TryFirst /*how*/) noexcept GVUSB_ACQUIRE(mutex)
        : m_mutex(mutex) {
        if (!m_mutex.tryLock()) {
            m_mutex.lock();
        }
    }
    ~MutexLock() GVUSB_RELEASE() { m_mutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& m_mutex;
};

// A lock that can end before its block.
class GVUSB_SCOPED_CAPABILITY ReleasableLock {
public:
    explicit ReleasableLock(Mutex& mutex) noexcept GVUSB_ACQUIRE(mutex)
        : m_mutex(&mutex) {
        mutex.lock();
    }
    ~ReleasableLock() GVUSB_RELEASE() {
        if (m_mutex != nullptr) {
            m_mutex->unlock();
        }
    }
    ReleasableLock(const ReleasableLock&) = delete;
    ReleasableLock& operator=(const ReleasableLock&) = delete;

    // For the analysis, the mutex is released in any case.
    void releaseIf(bool wanted) noexcept GVUSB_RELEASE() GVUSB_NO_THREAD_SAFETY_ANALYSIS {
        if (wanted) {
            m_mutex->unlock();
            m_mutex = nullptr;
        }
    }

private:
    Mutex* m_mutex;
};

// Releases a mutex during a block, if wanted, and takes it again. For the analysis, it is released in any case.
class GVUSB_SCOPED_CAPABILITY MutexUnlock {
public:
    MutexUnlock(Mutex& mutex, bool wanted) noexcept GVUSB_RELEASE(mutex) GVUSB_NO_THREAD_SAFETY_ANALYSIS
        : m_mutex(wanted ? &mutex : nullptr) {
        if (wanted) {
            mutex.unlock();
        }
    }
    ~MutexUnlock() GVUSB_RELEASE() GVUSB_NO_THREAD_SAFETY_ANALYSIS {
        if (m_mutex != nullptr) {
            m_mutex->lock();
        }
    }
    MutexUnlock(const MutexUnlock&) = delete;
    MutexUnlock& operator=(const MutexUnlock&) = delete;

private:
    Mutex* const m_mutex;
};

class Condition {
public:
    // The pthread_cond_t is never destroyed: this would wait for waiters, in a forked child forever.
    constexpr Condition() noexcept = default;
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;

    // Can wake up without a signal: call it in a loop that tests the condition.
    void wait(Mutex& mutex) noexcept GVUSB_REQUIRES(mutex) {
        pthread_cond_wait(&m_condition, &mutex.m_mutex);
    }
    void signal() noexcept { pthread_cond_signal(&m_condition); }
    void signalAll() noexcept { pthread_cond_broadcast(&m_condition); }

private:
    pthread_cond_t m_condition = PTHREAD_COND_INITIALIZER;
};
