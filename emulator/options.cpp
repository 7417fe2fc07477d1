#include "options.h"

#include "control/commands.h"
#include "preload_contract.h"
#include "replay/recording.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <memory>

#include <CLI/CLI.hpp>

namespace emulator {

namespace {

constexpr int usageError = 2;

constexpr unsigned mebibyteBits = 20;
constexpr std::uint64_t mostMebibytes = 2048;
constexpr std::uint64_t mostSeconds = 3600;

constexpr const char* description =
    R"(Run a program on an emulated USB bus with virtual readers, or serve the readers by USB/IP.
It needs no hardware and no privileges.)";

constexpr const char* usage = R"(Usage: gvusb-emulate [OPTIONS] [--] PROGRAM [ARGUMENTS...]
       gvusb-emulate --usbip [--listen ADDRESS:PORT] [OPTIONS] [[--] PROGRAM [ARGUMENTS...]]
       gvusb-emulate --replay FILE [OPTIONS] [[--] PROGRAM [ARGUMENTS...]]
       gvusb-emulate --send COMMAND
)";

constexpr const char* aboutReaders = R"(READERS
Without --reader and --readers there are two: reader 1 (device ID 1A2B3C, product 1) has bulk endpoints,
reader 2 (device ID 1A2B3D, product 2) has none and takes frames by control transfer.
A description is a list of KEY=VALUE pairs separated by commas; \, is a comma inside a value. A file has
one description per line. Defaults are in parentheses:
)";

constexpr const char* aboutCommands = R"(
COMMANDS
A command is one line, sent with --send or over the Unix socket whose path is in GVUSB_EMULATE_SOCKET.
The answer is one line: "ok", "ok DATA" or "error: REASON". A command that fails has changed nothing.
"--send help" prints this list. READER is a number or "all". PIPE is in or out (the direction of frames),
control, all, or an endpoint such as 0x81. FAULT is stall, mute, corrupt (a byte arrives changed),
delay:MS or delay:MIN-MAX:
)";

constexpr const char* aboutTheRest = R"(
SCRIPTS
A script has one command per line, in order of time: "at MS COMMAND" runs COMMAND MS milliseconds after
the program has started, and "at 0" before it starts. "at MS repeat N" and "at MS forever" begin a loop,
which may contain others; "at MS end" ends it. Times inside a loop count from the beginning of each pass;
that of "end" is the length of a pass. "forever" ends with the program.
The script is checked before the program starts. A command that fails, or whose time does not come before
the program ends, makes the exit status 1, unless --lenient is given.

RANDOM FAULTS
chance, jitter, and faults with MIN-MAX or corrupt draw random numbers from a seed: that of --seed, or one
that is drawn itself and printed on standard error as "gvusb-emulate: seed NUMBER". Each reader and pipe
draws its own numbers, one transfer or frame after the other, so that the same seed and the same frames
give the same faults.

LOGIC
A reader with logic=COMMAND is played by this command, which gets frames as lines of JSON on its standard
input and writes what the reader does to its standard output. /bin/sh starts it for each reader, outside the
bus, before the program. What it writes to standard error appears with the reader's name before each line.
Unless reply= is given too, the reader answers no frame by itself. Lines to the command:
  {"hello":1,"reader":1,"copy":1,"id":"CAFE",...,"endpoints":[...]}
      the first line: version of these lines, number and facts of the reader, which of its copies it is
  {"frame":"02FF","number":1,"pipe":"bulk","endpoint":"0x02"}
      a frame from the program; the pipe is "bulk" or "control"
  {"event":"opened"}
      plugged, unplugged, opened, closed, reset, claimed or released with "interface", configured with
      "configuration", halt-cleared with "endpoint", lost with the "count" of events that it read too late
Lines from the command, each of which may have "after_ms", a delay in milliseconds:
  {"send":"9000"}            a frame for the program, whether it answers one or not; also with "pipe"
  {"stall":"in"}             stall a bulk pipe until the halt is cleared, others for one transfer
  {"mute":"in"}              and unmute, with the name of a PIPE, as the commands above
  {"delay":"in","ms":50}     complete transfers after this time
  {"reply":"echo"}           answer frames by a rule too
  {"flush":true}             discard answers that have not been read
  {"unplug":true}            and plug
  {"command":"busy 1 on"}    run one of the commands above
  {"log":"text"}             write to standard error
While the command does not read, the program's frames stay pending. While the program does not read, nothing
is read from the command. When the command ends, its reader is unplugged; if it is plugged in again, the
command is started again. At the end of the run, its standard input ends; it is killed if it does not end
within a second. For Python, "import gvusb_logic" has the class Reader.

REPLAY
With --replay, the readers are those of a capture: a recording of "gvusb record", or one that usbmon has
made (tcpdump -i usbmon1, Wireshark; pcap or pcapng with link type 189 or 220). Its devices except hubs
are the readers, in the order in which they were seen, with their descriptors, strings, ports, bus numbers
and addresses, as far as the capture has them. What it lacks is reported on standard error before the program
starts.
A request is a frame or a control request. Its answer is what the reader sent until the next request,
which may be nothing, a stall or an error. By default, a request gets the answers that the same request
got, one each time that it is made, and the last one from then on. With "--replay-mode strict", requests
have to come in the recorded order. A request that differs is reported with the recorded one; from then on
the reader answers as by default. Standard requests, such as those for strings, are answered in both modes
as by default.
A frame that the recording does not have gets no answer, and another control request stalls. Both are
reported, each request once. The exit status is 1 instead of 0 if a request differed, was not in the
recording or, in strict mode, was not made; not with --lenient.
Answers come as long after the request as in the recording, divided by --replay-speed; 0 is as fast as
possible. What the reader sent before any request comes as long after its first transfer. A transfer that
was canceled stays pending until it is canceled or the next request comes. Openings, claims, resets and
the like fail where they failed.
A reader is plugged in or unplugged after the requests that preceded this in the recording, and before
those that followed. If one of the former does not come, this happens 5 s late, and in strict mode not at
all. In a capture of usbmon, readers that came before the first request are there from the start. Commands that plug
and unplug readers work too. "--replay-plugging commands" leaves it to them, for a program that sends them
itself as in the recording.
Other commands add to what the recording says: faults come on top, "push" sends something more, but
"reply", "on" and "jitter" have no effect. Over USB/IP, the attaching machine chooses addresses and claims
interfaces.

CONFIGURATION
A program can start its children with another configuration file: set GVUSB_EMULATE_CONFIG to its path,
or to an empty string for no file.

USB/IP
With --usbip there is no emulated bus. Any Linux machine can attach the readers with its usbip client
(modprobe vhci-hcd; usbip attach -r HOST -b BUSID); every program on that machine then sees them as USB
devices. "list" and "usbip list -r HOST" show the bus IDs, such as 1-1. "unplug" detaches a reader from
the machine that attached it; after "plug" it can be attached again. "counts" counts each attachment as
an opening. The commands busy, driver, refuse and fail-reset fail, because the machine that attaches a
reader is its host. Readers with a kernel driver or isochronous endpoints are refused.
Without a program, a line on standard output shows the address and, as GVUSB_EMULATE_SOCKET=PATH, the
socket for commands; the server runs until SIGINT or SIGTERM. With a program, the server runs as long as
the program, which finds the address in GVUSB_EMULATE_USBIP.
USB/IP has no authentication and no encryption: whoever can reach the port owns the readers. So an
address that other machines can reach needs --allow-remote; an ssh tunnel is safer.
What clients have sent, their pending transfers, unread replies and unread answers occupy at most the memory
of --usbip-memory. When it is used up, the server first forgets the last frames ("frames" then fails). Then a
message waits, or if another client occupies more, that client is disconnected. A client that waits for
memory or leaves replies unread for the time of --usbip-patience is disconnected, and one that does not
complete its request, or a message that it has begun, for 10 s. The reader of a client whose machine is gone
is free after 45 s, or the time of --usbip-patience if that is longer.

SIGNALS
SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1 and SIGUSR2 are passed on to the program, unless the terminal
sends them to the program too. The second signal to end kills it, and so does a time-out. Whatever
still runs one second after the end of the program is killed. What is killed is reported on standard
error.

EXIT STATUS
The exit status of the program, or 128 plus the number of the signal that killed it. 127 if the program
does not exist, 126 if it cannot be executed or cannot see the readers, 125 if the bus cannot be set up or the
logic of a reader cannot be started, 2 for a usage error, a mistake in the script or a capture that cannot be
played. With --usbip and no program: 0 after a signal. In both cases 1 instead of 0 if a command of the script
failed or did not run, if the logic of a reader ended before the program or with another status than 0, or
wrote a line that is not understood, or if the program differed from a recording (see REPLAY). With --send: 0
if the answer is "ok", 1 for an error.

EXAMPLES
  gvusb-emulate -- lsusb
  gvusb-emulate --reader id=CAFE,endpoints=control --reader id=BEEF,speed=high -- ./my-test --verbose
  gvusb-emulate --reader copies=32 -- ./my-test
  gvusb-emulate --reader 'id=CAFE,logic=python3 my-reader.py' -- ./my-test
  gvusb-emulate --replay session.pcapng -- ./my-test
  gvusb-emulate --usbip --reader id=CAFE
  gvusb-emulate -- sh -c 'my-test & gvusb-emulate --send "unplug 1"; wait'
  printf 'at 500 unplug 1\nat 1000 plug 1\n' > script; gvusb-emulate --script script -- ./monitor
)";

const CLI::Validator isReplaySpeed(
    [](std::string& text) {
        double speed = -1;
        constexpr double slowest = 0.001;
        constexpr double fastest = 1e6;
        const bool isSpeed =
            CLI::detail::lexical_cast(text, speed) && (speed == 0 || (speed >= slowest && speed <= fastest));
        return isSpeed ? std::string{} : "'" + text + "' is not a number from 0.001 to 1000000, or 0";
    },
    "");

class HelpFormatter : public CLI::Formatter {
    std::string make_usage(const CLI::App*, std::string) const override { return usage; }
};

// The words on the command line, not yet checked.
struct Words {
    std::vector<std::string> readers;
    std::vector<std::string> readerFiles;
    std::string script;
    std::string configuration;
    std::string address{defaultUsbipAddress};
    std::string command;
    unsigned killAfter = 5;
    bool trapSystemCalls = false;
    std::uint64_t seed = 0;
    bool lenient = false;
    std::string usbipMemory = std::to_string(usbip::Readers::defaultMemory >> mebibyteBits);
    std::string usbipPatience = std::to_string(usbip::Limits().replyPatience / std::chrono::seconds(1));
    bool allowRemote = false;
    bool waitForAll = false;
    std::string replay;
    std::string replayMode = "matching";
    std::string replayPlugging = "recorded";
    double replaySpeed = 1;
    bool noReaders = false;
    bool noConfiguration = false;
    bool usbip = false;
    bool verbose = false;
};

void addOptions(CLI::App& app, Words& words) {
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.add_option("--reader", words.readers, "Add a reader; may be repeated")
        ->type_name("DESCRIPTION")
        ->allow_extra_args(false);
    app.add_option("--readers", words.readerFiles, "Add the readers in a file, after those of --reader")
        ->type_name("FILE")
        ->allow_extra_args(false);
    app.add_flag("--no-readers", words.noReaders, "Start with an empty bus");
    CLI::Option* const replayed =
        app.add_option("--replay", words.replay,
                       "Play the readers of a capture, instead of those of --reader; -: standard input");
    replayed->type_name("FILE");
    app.add_option("--replay-mode", words.replayMode,
                   "Answer requests by matching them, or in strict order; see REPLAY below")
        ->type_name("matching|strict")
        ->check(CLI::IsMember({"matching", "strict"}).description(""))
        ->capture_default_str()
        ->needs(replayed);
    app.add_option("--replay-speed", words.replaySpeed,
                   "Play so many times as fast as recorded; 0: as fast as possible")
        ->type_name("FACTOR")
        ->check(isReplaySpeed)
        ->capture_default_str()
        ->needs(replayed);
    app.add_option("--replay-plugging", words.replayPlugging,
                   "Plug and unplug readers as recorded, or by commands only")
        ->type_name("recorded|commands")
        ->check(CLI::IsMember({"recorded", "commands"}).description(""))
        ->capture_default_str()
        ->needs(replayed);
    app.add_option("--script", words.script, "Run commands at given times")->type_name("FILE");
    app.add_flag(
        "--lenient", words.lenient,
        "Check only the names of the script's commands before the start, and leave the exit status to the "
        "program even if a command fails");
    app.add_option("--seed", words.seed, "Draw what is random from this number, to repeat a run")
        ->type_name("NUMBER");
    CLI::Option* const config = app.add_option(
        "--config", words.configuration,
        "Give the program this file when it opens /etc/gavo/gvusb.conf, and unset GVUSB_CONFIG");
    config->type_name("FILE");
    app.add_flag("--no-config", words.noConfiguration,
                 "Hide /etc/gavo/gvusb.conf from the program, and unset GVUSB_CONFIG")
        ->excludes(config);
    app.add_flag("-v,--verbose", words.verbose,
                 "Report commands, their answers and misbehaving USB/IP clients on standard error");
    app.add_option(
           "--kill-after", words.killAfter,
           "Kill a program that has not ended this long after it got SIGTERM, SIGINT, SIGHUP or SIGQUIT from "
           "gvusb-emulate; 0: never")
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_flag(
        "--wait-for-all", words.waitForAll,
        "Wait until all processes of the program have ended, instead of killing those that it leaves behind");
    app.add_flag("--trap-system-calls", words.trapSystemCalls,
                 "Serve system calls that the program makes without the C library too, as USB libraries in "
                 "Rust do; it "
                 "must not use SIGSYS (x86-64 with Linux 5.11 or later)");
    CLI::Option* const usbip = app.add_flag(
        "--usbip", words.usbip, "Serve the readers by USB/IP until a signal or the end of the program");
    app.add_option("--listen", words.address, "Where to listen for USB/IP clients; port 0 picks a free one")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str()
        ->needs(usbip);
    app.add_flag("--allow-remote", words.allowRemote,
                 "Allow --listen with an address that other machines can reach")
        ->needs(usbip);
    app.add_option("--usbip-memory", words.usbipMemory,
                   "How much memory all USB/IP clients together may occupy; see USB/IP below")
        ->type_name("MIB")
        ->capture_default_str()
        ->needs(usbip);
    app.add_option("--usbip-patience", words.usbipPatience,
                   "Disconnect a USB/IP client that leaves replies unread for this long")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->needs(usbip);
    app.add_option("--send", words.command, "Send a command to the bus this runs on and print the answer")
        ->type_name("COMMAND");
    app.set_version_flag("--version", "gvusb-emulate " GVUSB_VERSION, "Print the version and exit");
}

// What CLI11 leaves begins with the program, or with an option that it does not know.
std::vector<std::string> programAmong(std::vector<std::string> remaining) {
    if (remaining.empty()) {
        return remaining;
    }
    if (remaining.front() == "--") {
        remaining.erase(remaining.begin());
    } else if (remaining.front().starts_with("-")) {
        throw TextError("unexpected argument '" + remaining.front() + "'");
    }
    return remaining;
}

std::vector<ReaderDescription> readersOf(const Words& words) {
    if (words.readers.empty() && words.readerFiles.empty()) {
        return words.noReaders ? std::vector<ReaderDescription>{} : defaultReaders();
    }
    if (words.noReaders) {
        throw TextError("--no-readers cannot be used with --reader or --readers");
    }
    std::vector<ReaderDescription> readers;
    for (const std::string& line : words.readers) {
        std::ranges::move(parseReaders(line), std::back_inserter(readers));
    }
    for (const std::string& file : words.readerFiles) {
        std::ranges::move(readReaders(file), std::back_inserter(readers));
    }
    return readers;
}

std::optional<replay::Settings> replayOf(const CLI::App& app, const Words& words) {
    if (app.count("--replay") == 0) {
        return std::nullopt;
    }
    if (!words.readers.empty() || !words.readerFiles.empty() || words.noReaders) {
        throw TextError(
            "--replay cannot be used with --reader, --readers or --no-readers: the readers are those "
            "of the recording; a script can add others");
    }
    return replay::Settings{
        .recording = std::make_shared<const replay::Recording>(replay::readRecording(words.replay)),
        .mode = words.replayMode == "strict" ? replay::Mode::strict : replay::Mode::matching,
        .speed = words.replaySpeed,
        .plugging =
            words.replayPlugging == "commands" ? replay::Plugging::byCommands : replay::Plugging::recorded};
}

std::vector<ReaderDescription> readersOf(const replay::Recording& recording, bool usbip) {
    std::vector<ReaderDescription> readers;
    for (const replay::RecordedReader& each : recording.readers) {
        readers.push_back(each.description);
        if (usbip) {
            readers.back().kernelDriver.clear(); // that of the other host
            std::erase_if(readers.back().endpoints, [](const Endpoint& endpoint) {
                return endpoint.type == TransferType::isochronous;
            });
        }
    }
    return readers;
}

// The program may have another working directory by the time it reads the file.
std::string absolutePath(const std::string& file) {
    if (!std::filesystem::exists(file)) {
        throw TextError(file + ": no such file");
    }
    return std::filesystem::absolute(file).string();
}

Options optionsFrom(const CLI::App& app, const Words& words) {
    const bool hasConfiguration = app.count("--config") != 0;
    Options options;
    options.program = programAmong(app.remaining());
    if (app.count("--send") != 0) {
        options.command = words.command;
        return options;
    }
    options.verbose = words.verbose;
    options.killAfter = words.killAfter;
    options.trapSystemCalls = words.trapSystemCalls;
    options.waitForAll = words.waitForAll;
    if (words.usbip) {
        options.usbip = parseSocketAddress(words.address);
        if (!isLoopback(*options.usbip) && !words.allowRemote) {
            throw TextError("--listen " + words.address +
                            " needs --allow-remote: USB/IP has no authentication and " +
                            "no encryption, so whoever can reach the port owns the readers");
        }
        options.usbipLimits.memory = static_cast<std::size_t>(
            number("--usbip-memory", words.usbipMemory, 1, mostMebibytes) << mebibyteBits);
        options.usbipLimits.replyPatience =
            std::chrono::seconds(number("--usbip-patience", words.usbipPatience, 1, mostSeconds));
    }
    if (options.program.empty() && !words.usbip) {
        throw TextError("missing program");
    }
    if (words.usbip && words.trapSystemCalls) {
        throw TextError("--trap-system-calls cannot be used with --usbip");
    }
    if (words.usbip && (words.noConfiguration || hasConfiguration)) {
        throw TextError("--config and --no-config cannot be used with --usbip");
    }
    options.replay = replayOf(app, words);
    options.readers = options.replay ? readersOf(*options.replay->recording, words.usbip) : readersOf(words);
    options.lenient = words.lenient;
    if (app.count("--seed") != 0) {
        options.seed = words.seed;
    }
    if (!words.script.empty()) {
        const Script::Bus bus = {.readers = options.readers, .hostIsElsewhere = words.usbip};
        options.script = Script::read(words.script, words.lenient ? std::nullopt : std::optional(bus));
    }
    if (words.noConfiguration) {
        options.configurationFile = "";
    }
    if (hasConfiguration) {
        options.configurationFile = absolutePath(words.configuration);
    }
    return options;
}

int reportMistake(const char* mistake) {
    std::cerr << "gvusb-emulate: " << mistake << "\nRun 'gvusb-emulate --help' for more information.\n";
    return usageError;
}

} // namespace

std::variant<Options, int> readOptions(int count, const char* const* arguments) {
    CLI::App app(description, "gvusb-emulate");
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(aboutReaders + describeKeys() + aboutCommands + describeCommands() + aboutTheRest);
    app.prefix_command(); // what follows the program's name belongs to the program
    Words words;
    addOptions(app, words);
    try {
        app.parse(count, arguments);
        return optionsFrom(app, words);
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        return reportMistake(error.what());
    } catch (const TextError& error) {
        return reportMistake(error.what());
    } catch (const capture::CaptureError& error) {
        std::cerr << "gvusb-emulate: " << error.what() << '\n';
        return usageError;
    }
}

} // namespace emulator
