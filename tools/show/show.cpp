#include "capture/capture.h"

#include "command.h"
#include "failure.h"
#include "note.h"
#include "show/conversation.h"
#include "show/gnuplot.h"
#include "show/plot.h"
#include "show/report.h"
#include "time_stamp.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>

namespace show_command {
namespace {

constexpr const char* about = R"(
FILE is a recording made by 'gvusb record', or a capture of usbmon (tcpdump, Wireshark) in which the readers
were plugged in; '-' is standard input. A file that ends too early is shown up to there, with a note.

Each line has the time in seconds since the start, the reader, and what happened. '->' is a frame to the
reader, when it was submitted; '<-' is one from the reader, when it had arrived. MS is the time since the
frame to the reader was submitted. A transfer that timed out was canceled; it is shown as a time-out
unless the library returned another error. The requests that identify a reader are one line; --all shows each
of them in bytes, other devices, canceled transfers, what the kernel answered in place of a
device, and that there was no kernel driver to detach.

With --plot, only the summary is printed, and the exchanges are drawn over time with gnuplot: a lane for each
reader, a box for each exchange. Boxes are as wide and, on a logarithmic scale, as high as the exchange took.
In a long recording, a box stands for all exchanges of a moment and is as high as the longest. Failures are
marked.

A FILE that cannot be read, is no capture of USB, or has no reader in it, ends the command with status 2.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb show session.pcapng | less
  gvusb show session.pcapng --reader 1A2B3C
  gvusb show session.pcapng --plot session.svg
  gvusb show session.pcapng --json | jq -c 'select(.type == "exchange" and .outcome != "answered")'
)";

struct Options {
    std::string file;
    std::string reader;
    std::string plot;
    bool all = false;
    bool json = false;
};

capture::Capture read(const std::string& file) {
    try {
        return capture::readCapture(std::filesystem::path(file));
    } catch (const capture::CaptureError& error) {
        throw Failure(error.what(), ExitStatus::usage);
    }
}

Conversation derive(const capture::Capture& capture, bool all) {
    try {
        return conversationOf(capture, all);
    } catch (const capture::CaptureError& error) {
        throw Failure(
            error.what(), ExitStatus::usage,
            "A device is known if the capture has its descriptors, so begin a capture of usbmon before the "
            "reader is plugged in.");
    }
}

std::vector<bool> select(const Conversation& conversation, const Options& options) {
    const auto& readers = conversation.readers.readers;
    std::vector<bool> shown(readers.size());
    for (std::size_t i = 0; i < readers.size(); ++i) {
        shown[i] = options.reader.empty() || isNamed(readers[i], options.reader);
    }
    if (std::ranges::none_of(shown, [](bool is) { return is; })) {
        throw Failure(options.file + ": no reader " + options.reader + " in it", ExitStatus::notFound);
    }
    return shown;
}

void draw(const ShownRecording& recording, const Options& options) {
    const std::chrono::system_clock::time_point start(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(recording.conversation.begin));
    const std::string name =
        options.file == "-" ? "" : std::filesystem::path(options.file).filename().string() + ", ";
    runGnuplot(plotScript(recording.conversation, recording.shown, name + timeStamp(start)), options.plot);
    if (options.plot == "-") {
        return;
    }
    if (options.json) {
        printJsonSummary(recording);
    } else {
        printTextSummary(recording);
    }
}

ExitStatus show(const Options& options) {
    std::error_code error;
    if (!options.plot.empty() && std::filesystem::equivalent(options.file, options.plot, error)) {
        throw Failure(options.plot + ": this is the recording; draw into another file", ExitStatus::usage);
    }
    const capture::Capture capture = read(options.file);
    const Conversation conversation = derive(capture, options.all);
    const ShownRecording recording{.capture = capture,
                                   .conversation = conversation,
                                   .shown = select(conversation, options),
                                   .isFiltered = !options.reader.empty(),
                                   .all = options.all};
    for (const std::string& note : capture.notes) {
        printNote(capture.path + ": " + note);
    }
    if (!options.plot.empty()) {
        draw(recording, options);
    } else if (options.json) {
        printJson(recording);
    } else {
        printText(recording);
    }
    return ExitStatus::ok;
}

} // namespace
} // namespace show_command

void addShow(CLI::App& app, ExitStatus& status) {
    using namespace show_command;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("show", "Show a recording: frames, failures, times");
    command->add_option("FILE", options->file, "A recording or a capture of USB; '-' for standard input")
        ->required()
        ->type_name("");
    command->add_option("--reader", options->reader, "Show only the reader with this device ID or USB path")
        ->type_name("ID")
        ->check(isReader);
    command->add_flag("--all", options->all, "Show each control transfer in bytes, and other devices");
    command
        ->add_option("--plot", options->plot, "Draw the exchanges into an SVG file; '-' for standard output")
        ->type_name("SVG");
    command->add_flag("--json", options->json, "Print an object for each line, one per line");
    command->footer(joinSections({about, exitStatusHelp, examples}));
    command->callback([options, &status] { status = show(*options); });
}
