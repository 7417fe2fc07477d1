#include "manager/libusb_events.h"

#include <thread>

#include <libusb.h>

// Some implementations of libusb lack these functions. Without them, no thread is assumed to handle events.
#pragma weak libusb_try_lock_events
#pragma weak libusb_unlock_events
#pragma weak libusb_event_handler_active
#pragma weak libusb_lock_event_waiters
#pragma weak libusb_unlock_event_waiters
#pragma weak libusb_interrupt_event_handler

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds longestWait{1};
constexpr std::chrono::microseconds shortPause{50};
// On a busy machine, the time may be over before another thread has run.
constexpr int fewestLooks = 10;

bool canLockEvents() {
    return &libusb_try_lock_events != nullptr && &libusb_unlock_events != nullptr;
}

bool canInterrupt() {
    return &libusb_lock_event_waiters != nullptr && &libusb_unlock_event_waiters != nullptr &&
           &libusb_interrupt_event_handler != nullptr;
}

// At the end of a round, a thread releases the events lock and then takes the waiters' lock. Because the latter is held
// here, it cannot start another round before this thread gets the events lock. So this waits for at most one round of
// each thread, no matter what wakes them and how soon they come back.
bool awaitEndOfRound() {
    bool ended = false;
    libusb_lock_event_waiters(nullptr);
    for (int i = 0; i < 200 && !ended; ++i) {
        libusb_interrupt_event_handler(nullptr);
        std::this_thread::sleep_for(shortPause);
        ended = libusb_try_lock_events(nullptr) == 0;
    }
    libusb_unlock_event_waiters(nullptr);
    if (ended) {
        libusb_unlock_events(nullptr);
    }
    return ended;
}

} // namespace

// A thread that handles events holds the events lock, and no thread can take it then, not even the same one.
bool eventsAreBeingHandled() {
    if (!canLockEvents() || libusb_try_lock_events(nullptr) != 0) {
        return canLockEvents();
    }
    libusb_unlock_events(nullptr);
    return false;
}

bool awaitDeregisteredCallbacks() {
    if (!eventsAreBeingHandled()) {
        return false;
    }
    if (canInterrupt()) {
        for (const auto end = Clock::now() + longestWait; Clock::now() < end && !awaitEndOfRound();) {
        }
    }
    return true;
}

bool eventsAreHandledWithin(std::chrono::milliseconds time) {
    if (&libusb_event_handler_active == nullptr) {
        return eventsAreBeingHandled();
    }
    const auto end = Clock::now() + time;
    for (int looks = 1; libusb_event_handler_active(nullptr) == 0; ++looks) {
        if (looks >= fewestLooks && Clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(shortPause);
    }
    return true;
}
