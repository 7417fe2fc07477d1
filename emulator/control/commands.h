// The text commands that change a running bus and tell what its readers have seen.
//
// A command is one line, a word and its arguments; its answer is one line, "ok", "ok DATA" or "error: WHY".
// Readers go by their numbers, "all" stands for every reader. Run by the launcher's thread only.
#pragma once

#include "control/bus.h"

#include <string>
#include <string_view>

namespace emulator {

struct CommandAnswer {
    std::string text;
    Milliseconds pause{0}; // the answer is due that much later
};

// Never throws TextError: what is wrong stands in the answer.
CommandAnswer runCommand(Bus& bus, std::string_view line);

// Whether `line` is a command with as many arguments as it needs; what the bus will say to it shows when it
// runs. Throws TextError.
void checkCommand(std::string_view line);

// Every command with its arguments and meaning, for a help text.
std::string describeCommands();

} // namespace emulator
