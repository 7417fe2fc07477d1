// One run of gvusb-emulate from its options to its exit status. Nothing is left behind in the file system.
#pragma once

#include "options.h"

namespace emulator {

// Return the exit status of the program, or 0 without one, or 1 instead of 0 if the script has failed. Throws std::exception if the bus cannot be set up.
int launch(const Options& options);

} // namespace emulator
