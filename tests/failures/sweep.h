// Runs an operation in its situation with something failing, and checks all that holds afterwards.
#pragma once

#include "failing.h"
#include "operations.h"

#include <cstddef>

namespace failures {

// Each of these begins with a fresh manager and a fresh bus. Only one at a time; the worker thread must not call
// libusb meanwhile.

// The calls into libusb that the operation makes when nothing fails.
Trace callsOf(const Operation& operation);

// The calls that the failure describes fail. Tells whether any did.
void runWithFailure(const Operation& operation, const Failing& failing, std::size_t n, int logLevel);

// The n-th allocation of this thread fails. Tells whether there was one.
bool runOutOfMemory(const Operation& operation, std::size_t n, int logLevel);

} // namespace failures
