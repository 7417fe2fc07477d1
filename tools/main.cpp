#include "command.h"
#include "failure.h"
#include "output.h"
#include "version.h"
#include "wrapped_text.h"

#include <csignal>
#include <cstdio>
#include <initializer_list>
#include <iostream>
#include <memory>
#include <sstream>
#include <utility>
#include <vector>

namespace {

constexpr const char* description =
    "Find USB RFID readers, exchange frames with them, and watch them come and go.";

constexpr const char* conventions = R"(
Run 'gvusb COMMAND --help' for more about a command.

Device IDs are hexadecimal, in upper or lower case, with or without 0x. If several readers have the same
ID, the first one on the bus is used. A USB path selects the reader at a port: usb:1-2.3 is at port 3 of the
hub at port 2 of bus 1. It stays the same when the reader is plugged in there again.

Results go to standard output. Errors go to standard error, and so does the library's log if
/etc/gavo/gvusb.conf enables it. A command whose output is closed ends with status 0.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb list
  gvusb send 1A2B3C 02 00 07 FF 01
  gvusb monitor --json
  gvusb doctor
)";

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
    const char* const what = first.starts_with('-') ? "unknown option"
                             : hasCommand           ? "unexpected argument"
                                                    : "unknown command";
    return what + (" '" + first + "'");
}

std::string mistakeWithHint(const CLI::App* app, const CLI::Error& error) {
    const auto commands = app->get_subcommands();
    const std::string command = commands.empty() ? "" : " " + commands.front()->get_name();
    return "gvusb: " + mistake(*app, error) + "\nRun 'gvusb" + command + " --help' for more.\n";
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
    command->footer(exitStatusHelp + 1);
    command->callback([&app, name, &status] {
        // help() of the program would print that of the chosen command, "help".
        printHelp(name->empty()
                      ? app.get_formatter()->make_help(&app, app.get_name(), CLI::AppFormatMode::Normal)
                      : app.get_subcommand(*name)->help(app.get_name()));
        status = ExitStatus::ok;
    });
}

ExitStatus run(int count, char** arguments) {
    ExitStatus status = ExitStatus::failure;
    CLI::App app(description, "gvusb");
    app.set_version_flag("--version", versions, "Print the versions of the library and of libusb, and exit");
    app.require_subcommand(1);
    app.failure_message(mistakeWithHint);
    app.footer(joinSections({conventions, exitStatusHelp, examples}));
    for (const auto& [label, text] : std::initializer_list<std::pair<const char*, const char*>>{
             {"REQUIRED", ""}, {"SUBCOMMAND", "COMMAND"}, {"Positionals", "Arguments"}}) {
        app.get_formatter()->label(label, text);
    }
    for (const auto add : {addList, addInfo, addGet, addSet, addSend, addMonitor, addRecord, addShow,
                           addExplain, addDoctor, addHelp}) {
        add(app, status);
    }
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

} // namespace

int main(int count, char** arguments) {
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
