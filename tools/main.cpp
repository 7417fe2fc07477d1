#include "command.h"
#include "failure.h"
#include "output.h"
#include "version.h"

#include <csignal>
#include <cstdio>
#include <initializer_list>
#include <sstream>
#include <utility>
#include <vector>

namespace {

constexpr const char* description = "Finds USB RFID readers, talks to them and watches them come and go.";

std::string footer() {
    return std::string(
               "'gvusb COMMAND --help' tells more of each command.\n\n"
               "Device IDs are hexadecimal, in upper or lower case, with or without 0x. Where two "
               "readers have the\n"
               "same one, the first on the bus is meant.\n\n"
               "Results go to standard output. Errors go to standard error, and so does the library's "
               "log where\n"
               "/etc/gavo/gvusb.conf asks for it. A command whose output nobody reads any more ends "
               "with status 0.\n\n") +
           exitStatusHelp +
           "\nEXAMPLES\n"
           "  gvusb list\n"
           "  gvusb send 1A2B3C 02 00 07 FF 01\n"
           "  gvusb monitor --json\n"
           "  gvusb doctor\n";
}

// Prints help or the version, or what is wrong with the command line.
ExitStatus answerParser(const CLI::App& app, const CLI::ParseError& error) {
    std::ostringstream wanted;
    std::ostringstream mistake;
    if (app.exit(error, wanted, mistake) == 0) {
        output::print(wanted.str());
        return ExitStatus::ok;
    }
    const auto commands = app.get_subcommands();
    const std::string command = commands.empty() ? "" : " " + commands.front()->get_name();
    std::string what = error.what();
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError) && commands.empty()) {
        // The parser tells of the command that is missing, not of what stands in its place.
        const std::vector<std::string> unknown = app.remaining();
        what = unknown.empty() ? "no command" : "'" + unknown.front() + "' is not a command";
    }
    std::fprintf(stderr, "gvusb: %s\nRun 'gvusb%s --help' for more.\n", what.c_str(), command.c_str());
    return ExitStatus::usage;
}

ExitStatus run(int count, char** arguments) {
    Action action;
    CLI::App app(description, "gvusb");
    app.set_version_flag("--version", versions, "Print the versions of the library and of libusb, and exit");
    app.require_subcommand(1);
    for (const auto& [label, text] : std::initializer_list<std::pair<const char*, const char*>>{
             {"REQUIRED", ""}, {"SUBCOMMAND", "COMMAND"}, {"Positionals", "Arguments"}})
        app.get_formatter()->label(label, text);
    app.footer(footer());
    for (const auto add : {addList, addInfo, addGet, addSet, addSend, addMonitor, addExplain, addDoctor})
        add(app, action);
    for (CLI::App* command : app.get_subcommands({}))
        command->group("Commands");
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
        return answerParser(app, error);
    }
    return action();
}

} // namespace

int main(int count, char** arguments) {
    // Writing where nobody reads is an error like others.
    std::signal(SIGPIPE, SIG_IGN);
    ExitStatus status = ExitStatus::failure;
    try {
        status = run(count, arguments);
    } catch (const output::Closed&) {
        status = ExitStatus::ok;
    } catch (const Failure& failure) {
        std::fprintf(stderr, "gvusb: %s\n", failure.what());
        if (!failure.hint().empty())
            std::fprintf(stderr, "%s\n", failure.hint().c_str());
        status = failure.status();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "gvusb: %s\n", error.what());
    }
    return static_cast<int>(status);
}
