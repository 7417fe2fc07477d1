// The commands, each in the file of its name, and what they share on the command line.
#pragma once

#include "exit_status.h"

#include <functional>
#include <string>

#include <CLI/CLI.hpp>

// What the command line asks for, to be run once it has been read as a whole.
using Action = std::function<ExitStatus()>;

void addList(CLI::App& app, Action& action);
void addInfo(CLI::App& app, Action& action);
void addGet(CLI::App& app, Action& action);
void addSet(CLI::App& app, Action& action);
void addSend(CLI::App& app, Action& action);
void addMonitor(CLI::App& app, Action& action);
void addExplain(CLI::App& app, Action& action);
void addDoctor(CLI::App& app, Action& action);

// Adds the argument that names a reader.
void addReaderArgument(CLI::App& command, std::string& id);

// Adds the argument that names a reader or, as "driver", the library itself.
void addTargetArgument(CLI::App& command, std::string& target);

// The ID of an argument or option that has been checked while the command line was read.
unsigned int checkedId(const std::string& text);

extern const CLI::Validator isDeviceId;
