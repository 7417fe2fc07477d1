// What the launcher looks at in a program's file before it starts the program.
//
// Any thread.
#pragma once

#include <optional>
#include <string>

namespace emulator {

// Why a program cannot load the preload, so that it would see the machine's own USB devices; nothing if it can, or if
// there is no such program. The name is looked up as execvp() does, and the interpreter of a script is followed.
std::optional<std::string> whyOutOfReach(const std::string& program);

} // namespace emulator
