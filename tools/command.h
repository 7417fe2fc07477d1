// The commands, each in the file of its name, and what they share on the command line.
#pragma once

#include "command_line.h"
#include "exit_status.h"

#include <string>

#include <CLI/CLI.hpp>

// Add a command to the program. CLI11 runs the chosen one once the whole command line is valid; it stores its
// exit status.
void addList(CLI::App& app, ExitStatus& status);
void addInfo(CLI::App& app, ExitStatus& status);
void addGet(CLI::App& app, ExitStatus& status);
void addSet(CLI::App& app, ExitStatus& status);
void addSend(CLI::App& app, ExitStatus& status);
void addMonitor(CLI::App& app, ExitStatus& status);
void addRecord(CLI::App& app, ExitStatus& status);
void addExplain(CLI::App& app, ExitStatus& status);
void addShow(CLI::App& app, ExitStatus& status);
void addDoctor(CLI::App& app, ExitStatus& status);

// Accepts a device ID or a USB path.
extern const CLI::Validator isReader;

// Add the argument that names a reader, by its device ID or its USB path.
void addReaderArgument(CLI::App& command, std::string& id);

// Add the argument that names a reader or, as "driver", the library itself.
void addTargetArgument(CLI::App& command, std::string& target);
