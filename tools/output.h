// The tool's own output.
//
// The library writes its log to standard output if the configuration file enables it. Programs must be able
// to read the tool's output all the same. So the log is redirected to standard error, and only print() writes
// to the original standard output.
#pragma once

#include <cstddef>
#include <exception>
#include <string_view>

namespace output {

// The reader of the output is gone. This is not a failure, but there is nothing left to do.
struct Closed : std::exception {};

// Write the whole text without buffering. Throws Closed, or Failure if it cannot be written.
void print(std::string_view text);

// The descriptor that print() writes to.
int descriptor();

bool isTerminal();

// The columns of the terminal that print() writes to, or 80 if it writes elsewhere.
std::size_t width();

} // namespace output
