#include "base/own_thread.h"

#include <initializer_list>

BlockedSignals::BlockedSignals() noexcept {
    sigset_t applications;
    sigfillset(&applications);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
        sigdelset(&applications, fault);
    }
    pthread_sigmask(SIG_SETMASK, &applications, &m_before);
}

bool startOwnThread(pthread_t& thread, void* (*function)(void*), void* argument) noexcept {
    const BlockedSignals blocked;
    return pthread_create(&thread, nullptr, function, argument) == 0;
}
