// The commands for the readers of other machines, each in the file of its name.
#pragma once

#include "command_line.h"
#include "exit_status.h"
#include "fleet_options.h"

#include <CLI/CLI.hpp>

// Add a command to the program. CLI11 runs the chosen one once the whole command line is valid; it stores its exit status.
void addFleetList(CLI::App& app, const FleetOptions& fleet, ExitStatus& status);
void addFleetInfo(CLI::App& app, const FleetOptions& fleet, ExitStatus& status);
void addFleetGet(CLI::App& app, const FleetOptions& fleet, ExitStatus& status);
void addFleetSet(CLI::App& app, const FleetOptions& fleet, ExitStatus& status);
void addFleetSend(CLI::App& app, const FleetOptions& fleet, ExitStatus& status);
void addFleetMonitor(CLI::App& app, const FleetOptions& fleet, ExitStatus& status);
