// Runs an operation in its situation with a failure injected, and checks the state afterwards.
#pragma once

#include "failing.h"
#include "operations.h"

#include <cstddef>

namespace failures {

// Each function starts with a fresh manager and a fresh bus. Not thread-safe; the worker thread must not call
// libusb meanwhile.

// The operation's libusb calls without failures.
Trace callsOf(const Operation& operation);

// Fail the calls that `failing` describes. Returns whether any call failed.
void runWithFailure(const Operation& operation, const Failing& failing, std::size_t n, int logLevel);

// Throw from the n-th libusb call of this thread. Returns whether there was one. Calls that release something are not
// counted, because it would leak, nor those that only read a field of a device.
bool runWithException(const Operation& operation, std::size_t n);

// Fail the n-th allocation of this thread. Returns whether there was one.
bool runOutOfMemory(const Operation& operation, std::size_t n, int logLevel);

} // namespace failures
