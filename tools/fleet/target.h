// A reader of a machine as it is named on the command line.
#pragma once

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

struct FleetTarget {
    std::string machine;
    std::string reader; // as the service names it

    std::string text() const { return machine + '/' + reader; }
};

// Parse "gate-7/1A2B3C" or, if the machine has several readers with one device ID, "gate-7/1A2B3C@1-2.3". The device ID may
// be in lower case, and begin with 0x. Nothing if the text is neither.
std::optional<FleetTarget> parseFleetTarget(const std::string& text);

// Add the argument that names a reader.
void addFleetReaderArgument(CLI::App& command, std::string& text);

// Accepts the name of a machine.
extern const CLI::Validator isMachine;
