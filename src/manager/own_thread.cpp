#include "manager/own_thread.h"

#include <csignal>

bool startOwnThread(pthread_t& thread, void* (*function)(void*), void* argument) noexcept {
    // A new thread inherits the mask, so it never runs with a signal unblocked.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int result = pthread_create(&thread, nullptr, function, argument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return result == 0;
}
