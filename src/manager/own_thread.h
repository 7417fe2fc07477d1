// Threads of the library's own, which leave the application's signals to the application's threads.
#pragma once

#include <pthread.h>

// Returns whether the thread runs.
bool startOwnThread(pthread_t& thread, void* (*function)(void*), void* argument) noexcept;
