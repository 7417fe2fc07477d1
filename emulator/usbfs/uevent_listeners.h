// The programs that receive the bus's udev events, each through a socket in umockdev's folder.
#pragma once

#include <chrono>
#include <filesystem>

namespace emulator {

// Wait until every listener's socket has room for another event; false after the time. umockdev aborts the
// process if it cannot send an event, and a listener that is stopped or slow has room for about ten.
bool waitForRoomAtListeners(const std::filesystem::path& testbed, std::chrono::milliseconds patience);

} // namespace emulator
