// Detects threads that handle libusb's events. The library has no thread for this, but its synchronous transfers handle
// events while they wait, and an application may have a thread for it.
//
// libusb's default context must exist. Any thread.
#pragma once

#include <chrono>

// Whether some thread, including this one, is handling events now.
bool eventsAreBeingHandled();

// Wait until a deregistered callback can no longer run: libusb may still be calling it, or may have just decided to call it.
// Return whether a thread was handling events.
//
// Gives up after one second if the thread that handles events is stuck in a callback of the application, or is the calling
// thread.
bool awaitDeregisteredCallbacks();

// Whether a thread handles events within this time. A thread that handles them in a loop is between two rounds for some
// microseconds.
bool eventsAreHandledWithin(std::chrono::milliseconds time);
