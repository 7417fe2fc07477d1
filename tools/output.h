// The tool's own output. The library writes its log to standard output when the configuration file asks for
// it; so that what we print can be read by programs whatever the file says, the log is led to standard error
// and our own text alone goes where standard output led when the process started.
#pragma once

#include <exception>
#include <string_view>

namespace output {

// Thrown when nobody reads our output any more: no failure, but nothing is left to be done.
struct Closed : std::exception {};

// Writes at once and as a whole. Throws Closed, or Failure when it cannot be written.
void print(std::string_view text);

// The descriptor behind print().
int descriptor();

} // namespace output
