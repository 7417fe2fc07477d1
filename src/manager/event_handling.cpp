#include "manager/event_handling.h"

#include <thread>

#include <libusb.h>

// Older or other implementations of libusb may lack these. Without them no thread is taken to handle events.
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

bool canLockEvents() {
    return &libusb_try_lock_events != nullptr && &libusb_unlock_events != nullptr;
}

bool canInterrupt() {
    return &libusb_lock_event_waiters != nullptr && &libusb_unlock_event_waiters != nullptr &&
           &libusb_interrupt_event_handler != nullptr;
}

// A thread that ends its round releases the events lock first and then takes the waiters' lock, which is held here: it
// cannot begin another round before this one has the events lock. So as many rounds as there are threads are waited
// for, whatever wakes them and however soon they come back.
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

// A thread that handles events holds their lock, and nobody else can take it, that thread included.
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
    for (const auto end = Clock::now() + time; libusb_event_handler_active(nullptr) == 0;) {
        if (Clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(shortPause);
    }
    return true;
}
