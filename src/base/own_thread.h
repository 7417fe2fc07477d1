// Threads of the library and of libusb run with signals blocked, so that only the application's threads handle signals.
#pragma once

#include <csignal>

#include <pthread.h>

// Blocks signals in the calling thread during its lifetime. Threads that are started meanwhile inherit the mask. Signals for
// a thread's own faults, such as SIGSEGV, stay unblocked: otherwise they would end the process without calling the
// application's signal handler.
class BlockedSignals {
public:
    BlockedSignals() noexcept;
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t m_before;
};

// Start a thread with signals blocked. Return whether this succeeded.
bool startOwnThread(pthread_t& thread, void* (*function)(void*), void* argument) noexcept;
