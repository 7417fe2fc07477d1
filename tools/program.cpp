#include "program.h"

#include "command_line.h"
#include "failure.h"
#include "output.h"
#include "wrapped_text.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <initializer_list>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace program {
namespace {

// What is wrong with the command line. CLI11's own messages do not tell unknown options, unknown commands and
// unexpected arguments apart.
std::string mistake(const CLI::App& app, const CLI::Error& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ArgumentMismatch)) {
        const std::string text = error.what(); // "--count: 1 required N missing"
        return text.substr(0, text.find(':')) + ": the value is missing";
    }
    const bool hasCommand = !app.get_subcommands().empty();
    const bool isMissing =
        error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError) && !hasCommand;
    const bool isUnexpected = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError);
    if (!isMissing && !isUnexpected) {
        return error.what();
    }
    const std::vector<std::string> unexpected = app.remaining(true);
    if (unexpected.empty()) {
        return "no command given";
    }
    const std::string& first = unexpected.front();
    if (hasCommand && app.get_option_no_throw(first.substr(0, first.find('='))) != nullptr) {
        return "the option '" + first + "' stands before the command";
    }
    const char* const what = first.starts_with('-') ? "unknown option"
                             : hasCommand           ? "unexpected argument"
                                                    : "unknown command";
    return what + (" '" + first + "'");
}

std::string mistakeWithHint(const CLI::App* app, const CLI::Error& error) {
    const auto commands = app->get_subcommands();
    const std::string command = commands.empty() ? "" : " " + commands.front()->get_name();
    return "gvusb: " + mistake(*app, error) + "\nRun '" + app->get_name() + command + " --help' for more.\n";
}

void printHelp(const std::string& help) {
    output::print(output::isTerminal() ? rewrapped(help) : help);
}

void addHelp(CLI::App& app, ExitStatus& status) {
    auto name = std::make_shared<std::string>();
    CLI::App* command = app.add_subcommand("help", "Print the help of a command, as --help does");
    command->add_option("COMMAND", *name, "A command; without it, print the help of gvusb itself")
        ->type_name("")
        ->check(CLI::Validator(
            [&app](std::string& text) {
                const auto isNamed = [&text](const CLI::App* each) { return each->get_name() == text; };
                return app.get_subcommands(isNamed).empty() ? "unknown command '" + text + "'"
                                                            : std::string{};
            },
            ""));
    command->footer(joinSections({exitStatusHelp}));
    command->callback([&app, name, &status] {
        // help() of the program would print that of the chosen command, "help".
        printHelp(name->empty()
                      ? app.get_formatter()->make_help(&app, app.get_name(), CLI::AppFormatMode::Normal)
                      : app.get_subcommand(*name)->help(app.get_name()));
        status = ExitStatus::ok;
    });
}

} // namespace
} // namespace program

ExitStatus runCommand(CLI::App& app, ExitStatus& status, int count, char** arguments) {
    using namespace program;
    app.require_subcommand(1);
    app.failure_message(mistakeWithHint);
    for (const auto& [label, text] : std::initializer_list<std::pair<const char*, const char*>>{
             {"REQUIRED", ""}, {"SUBCOMMAND", "COMMAND"}, {"Positionals", "Arguments"}}) {
        app.get_formatter()->label(label, text);
    }
    addHelp(app, status);
    for (CLI::App* command : app.get_subcommands({})) {
        command->group("Commands");
    }
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
        std::ostringstream wanted; // help or the versions
        status = app.exit(error, wanted, std::cerr) == 0 ? ExitStatus::ok : ExitStatus::usage;
        printHelp(wanted.str());
    }
    return status;
}

int runProgram(ExitStatus (*run)(int, char**), int count, char** arguments) {
    // A write to a closed pipe is to fail with EPIPE instead.
    std::signal(SIGPIPE, SIG_IGN);
    ExitStatus status = ExitStatus::failure;
    try {
        status = run(count, arguments);
    } catch (const output::Closed&) {
        status = ExitStatus::ok;
    } catch (const Failure& failure) {
        std::fprintf(stderr, "gvusb: %s\n", failure.what());
        if (!failure.hint().empty()) {
            std::fprintf(stderr, "%s\n", failure.hint().c_str());
        }
        status = failure.status();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "gvusb: %s\n", error.what());
    }
    return static_cast<int>(status);
}
