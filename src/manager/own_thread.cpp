#include "manager/own_thread.h"

#include <csignal>
#include <initializer_list>

bool startOwnThread(pthread_t& thread, void* (*function)(void*), void* argument) noexcept {
    // A new thread inherits the mask, so it never runs with another. What a thread raises by a fault of its own
    // stays open: blocked, it would end the process past the application's handler.
    sigset_t applications;
    sigset_t before;
    sigfillset(&applications);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
        sigdelset(&applications, fault);
    }
    pthread_sigmask(SIG_SETMASK, &applications, &before);
    const int result = pthread_create(&thread, nullptr, function, argument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return result == 0;
}
