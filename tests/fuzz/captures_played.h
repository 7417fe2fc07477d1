// Plays what was read of a capture.
#pragma once

#include "capture/capture.h"

namespace emulator::replay {

// Make readers of the capture, and make each of them the requests that were recorded, in both modes.
void playCapture(const capture::Capture& read);

} // namespace emulator::replay
