// Makes a bus, runs one program on it or serves it to others, and leaves nothing behind.
#pragma once

#include "options.h"

namespace emulator {

// umockdev works only in a process that has its preload: starts the launcher anew with it, if it is not there
// yet. Throws std::system_error.
void ensurePreloaded(char* const* arguments);

// Returns the exit status of the program, or 0 where there is none. Throws std::exception if the bus cannot be made.
int launch(const Options& options);

} // namespace emulator
