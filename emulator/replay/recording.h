// Prepares a capture for playing.
//
// Any thread.
#pragma once

#include "capture/capture.h"
#include "replay/recorded.h"

#include <filesystem>

namespace emulator::replay {

// The readers of a capture and what happened to them. Devices of other vendors are among them, hubs are not. Throws
// capture::CaptureError if it has no reader.
Recording recordingFrom(const capture::Capture& capture);

// "-" reads standard input.
Recording readRecording(const std::filesystem::path& file);

} // namespace emulator::replay
