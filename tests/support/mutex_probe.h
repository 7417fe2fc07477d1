// Tells whether a mutex is held.
//
// Works in any thread, including the one that holds the mutex: a separate thread tries to lock it, so the
// answer does not depend on the caller.
#pragma once

#include "allocation_failure.h"

#include <pthread.h>
#include <thread>

namespace support {

inline bool isHeld(pthread_mutex_t& mutex) {
    const AllocationPause pause;
    bool held = false;
    std::thread([&] {
        held = pthread_mutex_trylock(&mutex) != 0;
        if (!held) {
            pthread_mutex_unlock(&mutex);
        }
    }).join();
    return held;
}

// The same for a class that consists of only a pthread_mutex_t.
template <class Wrapper>
requires(sizeof(Wrapper) == sizeof(pthread_mutex_t)) bool isHeld(Wrapper& mutex) {
    return isHeld(reinterpret_cast<pthread_mutex_t&>(mutex));
}

} // namespace support
