// Tells whether somebody holds a mutex.
//
// May be asked from any thread, also from the one that holds the mutex: another thread tries it, so that the
// answer does not depend on who asks.
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

// The same for a class that is nothing but a pthread_mutex_t.
template <class Wrapper>
requires(sizeof(Wrapper) == sizeof(pthread_mutex_t)) bool isHeld(Wrapper& mutex) {
    return isHeld(reinterpret_cast<pthread_mutex_t&>(mutex));
}

} // namespace support
