#include "fleet_program.h"

#include "companion_file.h"
#include "failure.h"
#include "fleet_options.h"
#include "output.h"

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include <CLI/CLI.hpp>
#include <unistd.h>

namespace fleet_program {
namespace {

constexpr const char* name = "gvusb-fleet";

// Whether --broker stands before the command. What else is wrong with the command line, its parser says.
bool hasBroker(int count, char** arguments) {
    FleetOptions options;
    CLI::App app;
    app.set_help_flag("");
    app.prefix_command();
    addFleetOptions(app, options);
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError&) {
        return false;
    }
    const bool isGiven = app.count("--broker") != 0;
    for (const CLI::Option* option : app.get_options()) {
        if (!isGiven && option->count() != 0) {
            throw Failure(option->get_name() + " needs --broker", ExitStatus::usage,
                          "Run 'gvusb --help' for more.");
        }
    }
    return isGiven;
}

// The log goes to standard error while this program runs; the other one redirects its own log.
void restoreStandardOutput() {
    if (output::descriptor() < 0) {
        ::close(STDOUT_FILENO);
    } else {
        ::dup2(output::descriptor(), STDOUT_FILENO);
    }
}

} // namespace
} // namespace fleet_program

void runForOtherMachines(int count, char** arguments) {
    using namespace fleet_program;
    if (!hasBroker(count, arguments)) {
        return;
    }
    const std::optional<std::filesystem::path> program = companionFile(name);
    if (!program) {
        throw Failure("--broker needs the program " + std::string(name) + ", which is not installed",
                      ExitStatus::failure, "Install the package gvusb-mqtt of the same version.");
    }
    restoreStandardOutput();
    ::execv(program->c_str(), arguments);
    throw Failure(program->string() + ": " + std::generic_category().message(errno));
}
