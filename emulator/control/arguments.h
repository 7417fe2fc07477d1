// What the arguments of commands name: readers, their pipes, switches. Each function removes what it reads from the
// beginning of `arguments` and throws TextError for a mistake.
//
// For the launcher's thread only.
#pragma once

#include "control/roster.h"
#include "model/pipes.h"

#include <string_view>
#include <vector>

namespace emulator {

void expectEnd(std::string_view arguments);

// READER, where only one is possible.
std::size_t takeReader(const Roster& roster, std::string_view& arguments);

// READER or "all".
std::vector<std::size_t> takeReaders(const Roster& roster, std::string_view& arguments);

// READER PIPE. Every reader must have the pipe.
struct ReaderPipes {
    std::size_t reader = 0;
    std::vector<Pipe> pipes;
};
std::vector<ReaderPipes> takePipes(const Roster& roster, std::string_view& arguments);

bool takeSwitch(std::string_view& arguments);
std::uint8_t takeStringIndex(std::string_view& arguments);

// Words of hexadecimal digits, up to the first other word. `what` names them in the error.
Bytes takeHexWords(std::string_view what, std::string_view& arguments);

} // namespace emulator
