// What the programs behind `gvusb` share: help, mistakes on the command line, and the exit status.
#pragma once

#include "exit_status.h"

#include <CLI/CLI.hpp>

// The lines of the help that are the same in every program.
inline constexpr const char* outputConventions = R"(
Results go to standard output. Errors go to standard error, and so does the library's log if
/etc/gavo/gvusb.conf enables it. A command whose output is closed ends with status 0.
)";

// Add the command "help" to those that the program has, and run the command that the command line names. It stores
// its exit status.
ExitStatus runCommand(CLI::App& app, ExitStatus& status, int count, char** arguments);

// The body of main(): print the failure that ends `run` on standard error, and return the exit status.
int runProgram(ExitStatus (*run)(int, char**), int count, char** arguments);
