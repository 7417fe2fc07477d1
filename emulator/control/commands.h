// The commands that change a running bus and report what its readers have seen.
//
// A command is a line, a word with arguments. Its answer is a line: "ok", "ok DATA" or "error: REASON". A command
// checks everything before it changes anything. For the launcher's thread only.
#pragma once

#include "control/bus.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace emulator {

struct CommandAnswer {
    std::string text;
    Milliseconds pause{0}; // how long to delay the answer
};

// A command whose arguments are right.
struct CheckedCommand {
    // Throws TextError if the state of the bus does not allow the command.
    std::function<CommandAnswer(Bus& bus)> run;

    std::vector<ReaderDescription> added = {}; // readers that the command adds to the bus
};

// Throws TextError.
CheckedCommand checkCommand(const Roster& roster, std::string_view line);

// Check only the command's name and the number of its arguments. Throws TextError.
void checkCommandName(std::string_view line);

// Check and run. Never throws TextError: the answer reports mistakes.
CommandAnswer runCommand(Bus& bus, std::string_view line);

std::vector<std::string_view> commandNames();

// Every command with its arguments and meaning, for the help.
std::string describeCommands();

} // namespace emulator
