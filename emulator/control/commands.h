// The commands that change a running bus and report what its readers have seen.
//
// A command is a line, a word with arguments. Its answer is a line: "ok", "ok DATA" or "error: REASON". For
// the launcher's thread only.
#pragma once

#include "control/bus.h"

#include <string>
#include <string_view>
#include <vector>

namespace emulator {

struct CommandAnswer {
    std::string text;
    Milliseconds pause{0}; // how long to delay the answer
};

// Never throws TextError: the answer reports mistakes.
CommandAnswer runCommand(Bus& bus, std::string_view line);

// Check the command and the number of its arguments. Other mistakes show only when it runs. Throws TextError.
void checkCommand(std::string_view line);

std::vector<std::string_view> commandNames();

// Every command with its arguments and meaning, for the help.
std::string describeCommands();

} // namespace emulator
