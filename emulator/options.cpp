#include "options.h"

#include "control/commands.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <memory>
#include <string_view>

#include <CLI/CLI.hpp>

namespace emulator {

namespace {

constexpr int usageError = 2;

std::string footer() {
    return "READERS\n"
           "Without --reader and --readers there are two: number 1 with bulk endpoints (product 1, device "
           "ID 1A2B3C)\n"
           "and number 2 without (product 2, device ID 1A2B3D), to which frames go by control transfers.\n"
           "A program has room for 50 that are open.\n"
           "A description has KEY=VALUE pairs with commas between them; \\, is a comma inside a value. In a "
           "file there\n"
           "is one to a line. What is in parentheses holds where nothing is said:\n" +
           describeKeys() +
           "\nCOMMANDS\n"
           "The program finds the path of a Unix socket in GVUSB_EMULATE_SOCKET. Each line that it sends is "
           "a command,\n"
           "answered by a line \"ok\", \"ok DATA\" or \"error: WHY\"; --send does the same from a shell. "
           "READER is a "
           "number\n"
           "or \"all\"; PIPE is in or out (the way of frames), control, all, or an endpoint such as "
           "0x81:\n" +
           describeCommands() +
           "\nA script has lines \"at MS COMMAND\", MS after the program's start, in order of time.\n"
           "\nCONFIGURATION\n"
           "A program may give the children that it starts another configuration file: the path in\n"
           "GVUSB_EMULATE_CONFIG, or an empty text for none.\n"
           "\nUSB/IP\n"
           "With --usbip the readers are on no bus of their own: any Linux machine attaches them with its "
           "usbip "
           "client\n"
           "(modprobe vhci-hcd; usbip attach -r HOST -b BUSID), and every program there sees them as "
           "devices. "
           "\"list\"\n"
           "and \"usbip list -r HOST\" tell the bus IDs, such as 1-1. To be unplugged is to be taken from "
           "who has "
           "attached\n"
           "the reader; plugged again, it can be attached again. \"counts\" counts as opened how often it "
           "was "
           "attached. The\n"
           "commands busy, driver, refuse and fail-reset are errors, for the machine that attaches is the "
           "host. Readers\n"
           "with a driver or with isochronous endpoints are refused. Without a program a line on standard "
           "output tells\n"
           "the address and, as GVUSB_EMULATE_SOCKET=PATH, where commands go; SIGINT or SIGTERM ends it. A "
           "program runs\n"
           "beside it and finds the address in GVUSB_EMULATE_USBIP.\n"
           "USB/IP has no passwords and no encryption: whoever reaches the port has the readers.\n"
           "\nEXIT STATUS\n"
           "That of the program, or 128 and the number of the signal that ended it; 127 if there is no such "
           "program,\n"
           "126 if it cannot be run, 125 if the bus could not be made, 2 for a mistake on the command line.\n"
           "With --usbip and no program: 0 at the end by a signal. With --send: 0 for \"ok\", 1 for an "
           "error.\n"
           "\nEXAMPLES\n"
           "  gvusb-emulate -- lsusb\n"
           "  gvusb-emulate --reader id=CAFE,endpoints=control --reader id=BEEF,speed=high -- ./my-test "
           "--verbose\n"
           "  gvusb-emulate --reader copies=32 -- ./my-test\n"
           "  gvusb-emulate --usbip --reader id=CAFE\n"
           "  gvusb-emulate -- sh -c 'my-test & gvusb-emulate --send \"unplug 1\"; wait'\n"
           "  printf 'at 500 unplug 1\\nat 1000 plug 1\\n' > script; gvusb-emulate --script script -- "
           "./monitor\n";
}

// CLI11 would take the program's own options for ours, so what follows is cut off before it reads: everything
// after the first "--", or from the first word on that is neither an option nor an option's value.
std::vector<std::string> cutProgram(std::vector<std::string>& arguments) {
    static constexpr std::array<std::string_view, 6> withValue = {"--reader", "--readers", "--script",
                                                                  "--config", "--send",    "--listen"};
    auto word = arguments.begin();
    while (word != arguments.end() && word->starts_with("-") && *word != "--") {
        const bool takesNext = std::ranges::find(withValue, *word) != withValue.end();
        ++word;
        if (takesNext && word != arguments.end()) {
            ++word;
        }
    }
    const bool separator = word != arguments.end() && *word == "--";
    std::vector<std::string> program(word + (separator ? 1 : 0), arguments.end());
    arguments.erase(word, arguments.end());
    return program;
}

class HelpText : public CLI::Formatter {
    std::string make_usage(const CLI::App*, std::string) const override {
        return "Usage: gvusb-emulate [OPTIONS] [--] PROGRAM [ARGUMENTS...]\n"
               "       gvusb-emulate --usbip [--listen ADDRESS:PORT] [OPTIONS] [[--] PROGRAM "
               "[ARGUMENTS...]]\n"
               "       gvusb-emulate --send COMMAND\n";
    }
};

} // namespace

std::variant<Options, int> readOptions(int count, const char* const* arguments) {
    Options options;
    std::vector<std::string> words(arguments + 1, arguments + count);
    options.program = cutProgram(words);

    CLI::App app("Runs a program on an emulated USB bus with virtual readers, or serves them by USB/IP. "
                 "Needs no privilege "
                 "and no hardware.",
                 "gvusb-emulate");
    app.formatter(std::make_shared<HelpText>());
    app.footer(footer());
    std::vector<std::string> descriptions;
    std::vector<std::string> readerFiles;
    std::string scriptFile;
    std::string configurationFile;
    std::string command;
    bool noReaders = false;
    bool noConfiguration = false;
    app.add_option("--reader", descriptions, "A reader on the bus; may be repeated")
        ->type_name("DESCRIPTION");
    app.add_option("--readers", readerFiles, "The readers of a file, after those of --reader")
        ->type_name("FILE");
    app.add_flag("--no-readers", noReaders, "An empty bus");
    app.add_option("--script", scriptFile, "Commands to run at given times")->type_name("FILE");
    CLI::Option* config = app.add_option("--config", configurationFile,
                                         "What the program reads when it opens /etc/gavo/gvusb.conf");
    config->type_name("FILE");
    app.add_flag("--no-config", noConfiguration, "The program finds no /etc/gavo/gvusb.conf")
        ->excludes(config);
    app.add_flag("-v,--verbose", options.verbose,
                 "Report commands, their answers and USB/IP clients that talk nonsense on standard error");
    bool usbip = false;
    std::string address(defaultUsbipAddress);
    CLI::Option* serve = app.add_flag(
        "--usbip", usbip,
        "Serve the readers by USB/IP to machines that attach them, until a signal or the program's end");
    app.add_option("--listen", address, "Where USB/IP clients reach them; port 0 takes a free one")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str()
        ->needs(serve);
    CLI::Option* send = app.add_option("--send", command,
                                       "Send a command to the bus that this runs on, and print the answer");
    send->type_name("COMMAND");
    app.set_version_flag("--version", "gvusb-emulate " GVUSB_VERSION, "Print the version and exit");

    try {
        std::ranges::reverse(words); // CLI11 takes them from the end
        app.parse(words);
        if (send->count() != 0) {
            options.command = command;
            return options;
        }
        if (usbip) {
            options.usbip = parseSocketAddress(address);
        }
        if (options.program.empty() && !usbip) {
            throw TextError("no program to run");
        }
        if (usbip && (noConfiguration || config->count() != 0)) {
            throw TextError(
                "--config and --no-config do not go with --usbip, where no bus is the program's own");
        }
        if (noReaders && !(descriptions.empty() && readerFiles.empty())) {
            throw TextError("--no-readers goes with no other readers");
        }
        for (const std::string& description : descriptions) {
            std::ranges::move(parseReaders(description), std::back_inserter(options.readers));
        }
        for (const std::string& file : readerFiles) {
            std::ranges::move(readReaders(file), std::back_inserter(options.readers));
        }
        if (descriptions.empty() && readerFiles.empty() && !noReaders) {
            options.readers = defaultReaders();
        }
        if (!scriptFile.empty()) {
            options.script = Script::read(scriptFile);
        }
        if (noConfiguration) {
            options.configurationFile = "";
        }
        if (config->count() != 0) {
            if (!std::filesystem::exists(configurationFile)) {
                throw TextError(configurationFile + ": there is no such file");
            }
            // The program may have another working directory by the time it reads it.
            options.configurationFile = std::filesystem::absolute(configurationFile).string();
        }
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : usageError;
    } catch (const TextError& error) {
        std::cerr << "gvusb-emulate: " << error.what() << "\nRun gvusb-emulate --help for more.\n";
        return usageError;
    }
    return options;
}

} // namespace emulator
