// How to reach the readers of other machines: the options before the command.
#pragma once

#include "fleet/broker.h"

#include <string>

#include <CLI/CLI.hpp>

struct FleetOptions {
    fleet::BrokerOptions broker;
    std::string prefix = "gvusb";
    double connectSeconds = 10;
};

// Their heading in the help.
inline constexpr const char* fleetOptionsGroup = "Options for readers of other machines";

// Add --broker and the options that need it.
void addFleetOptions(CLI::App& app, FleetOptions& options);
