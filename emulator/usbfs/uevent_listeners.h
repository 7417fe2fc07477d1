// The programs that listen for the bus's events: a socket each in the testbed's folder.
#pragma once

#include <chrono>
#include <filesystem>

namespace emulator {

// Waits until every listener has room for one more event. A listener that is stopped, or slow on a busy machine, has
// room for ten or so; umockdev ends the process when an event cannot be sent. Returns false when the time is over.
bool waitForRoomAtListeners(const std::filesystem::path& testbed, std::chrono::milliseconds patience);

} // namespace emulator
