// Threads that the library starts, and those that libusb starts for it. Signals of the application are handled by the
// application's own threads.
#pragma once

#include <csignal>

#include <pthread.h>

// Blocks signals in the calling thread for its lifetime. A thread that is started meanwhile inherits the mask, so it never
// runs with another. Faults that a thread causes itself (SIGSEGV and the like) stay unblocked: blocked, they would end the
// process without the application's handler.
class BlockedSignals {
public:
    BlockedSignals() noexcept;
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t m_before;
};

// Starts a thread with signals blocked. Returns whether it runs.
bool startOwnThread(pthread_t& thread, void* (*function)(void*), void* argument) noexcept;
