// Who handles libusb's events. The library never does so by itself, but its own synchronous transfers do in passing, and
// applications may have a thread for it.
//
// All of it is about libusb's default context, which must exist. Any thread.
#pragma once

#include <chrono>

// Whether some thread, this one included, handles events at this moment.
bool eventsAreBeingHandled();

// Waits until a callback that has been deregistered can no longer run: deregistering alone leaves a callback alone that
// libusb is calling, or has just decided to call. Returns whether a thread was handling events.
//
// A thread that handles events and is stuck in a callback of the application, or that is the one which waits here, is
// waited for one second.
bool awaitDeregisteredCallbacks();

// Whether a thread begins to handle events within this time: one that handles them in a loop is between two rounds for
// some microseconds.
bool eventsAreHandledWithin(std::chrono::milliseconds time);
