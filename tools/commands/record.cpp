#include "command.h"
#include "commands/recorded_program.h"
#include "commands/restart_without_hotplug.h"
#include "failure.h"
#include "note.h"
#include "output.h"
#include "version.h"

#include "recorder/recording_writer.h"
#include "recorder/ring.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace record_command {
namespace {

constexpr const char* about = R"(
Runs PROGRAM and writes a capture of its USB transfers, which Wireshark, 'gvusb show' and
'gvusb-emulate --replay' read. It needs no privilege: it records PROGRAM and the programs that this starts,
not the bus. The program's output and exit status are its own; with '-o -', its output goes to standard
error.

CONTENTS
For every USB device that the program opens, a recording holds the descriptors and strings (with the
serial number), the place on the bus, and every transfer with its data, result and times. It also holds
what was opened, claimed, reset and cleared, devices that came and went (any USB device, with its
descriptors), the calls of libgvusb with their arguments and results, and the program's name. It holds no
other files, no environment and no arguments of the program.

Frames may contain confidential data, such as card numbers. --redact replaces the data of all of them by
"REDACTEDREDACTED..." of the same length; --redact-matching, only of those that contain PATTERN: bytes in
hexadecimal, with ?? for any byte. A pattern is looked for in one transfer at a time. What identifies a
reader stays: descriptors, strings, and the texts that libgvusb hands out.

The file is readable only by its owner. It is complete after every transfer, also if PROGRAM is killed.

A recording ends with PROGRAM, or before the file is larger than --max-size, or with --until-signal at the
first SIGINT or SIGTERM. The program goes on then. With --until-signal, Ctrl-C does not reach the program,
and later signals are passed on to it. It runs in the background, so it is stopped if it reads the terminal.

Programs that are linked statically or have another user's rights cannot be recorded, nor can those that
remove LD_PRELOAD or GVUSB_RECORD from the environment.
)";

constexpr const char* statuses = R"(
EXIT STATUS
  that of PROGRAM, or 128 plus the number of the signal that killed it; otherwise
  1    the recording failed, and PROGRAM succeeded
  2    invalid command line
  126  PROGRAM could not be executed
  127  PROGRAM was not found
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb record -o session.pcapng -- ./program --its-option
  gvusb record -o - -- ./program | tshark -r -
  gvusb record -o session.pcapng --redact-matching '04 ?? A1' -- ./program
)";

struct Options {
    std::string file;
    std::vector<std::string> program;
    std::string largest;
    bool untilSignal = false;
    bool redact = false;
    std::vector<std::string> patterns;
};

// "100k", "20M", "1G"; at least 64 KiB, so that a device fits.
std::optional<std::uint64_t> parseSize(std::string_view text) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string_view unit = text.substr(static_cast<std::size_t>(end - text.data()));
    constexpr std::uint64_t kibi = 1024;
    const std::uint64_t factor = unit.empty()                 ? 1
                                 : unit == "k" || unit == "K" ? kibi
                                 : unit == "M"                ? kibi * kibi
                                 : unit == "G"                ? kibi * kibi * kibi
                                                              : 0;
    constexpr std::uint64_t smallest = 64 * kibi;
    if (error != std::errc{} || factor == 0 || number > std::numeric_limits<std::uint64_t>::max() / factor ||
        number * factor < smallest) {
        return std::nullopt;
    }
    return number * factor;
}

const CLI::Validator isSize(
    [](std::string& text) {
        return parseSize(text) ? std::string{}
                               : "'" + text + "' is not a size of at least 64k, such as 500k, 20M or 1G";
    },
    "");

const CLI::Validator isPattern(
    [](std::string& text) {
        return recorder::Pattern::parse(text) ? std::string{}
                                              : "'" + text + "' is not a pattern of bytes such as '04 ?? A1'";
    },
    "");

class File {
public:
    explicit File(const std::string& path)
        : m_descriptor(path == "-"
                           ? ::fcntl(output::descriptor(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1)
                           : ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, ownerOnly)) {
        if (m_descriptor < 0) {
            throw Failure(path + ": " + std::generic_category().message(errno));
        }
        if (path != "-" && !restrict()) {
            const int error = errno;
            ::close(m_descriptor);
            throw Failure(path + ": " + std::generic_category().message(error));
        }
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File() { ::close(m_descriptor); }

    int descriptor() const { return m_descriptor; }

private:
    static constexpr mode_t ownerOnly = 0600;

    // For a file that was there before.
    bool restrict() const {
        struct stat status {};
        return ::fstat(m_descriptor, &status) == 0 &&
               (!S_ISREG(status.st_mode) || ::fchmod(m_descriptor, ownerOnly) == 0);
    }

    int m_descriptor;
};

recorder::Redaction redactionOf(const Options& options) {
    recorder::Redaction redaction = {.all = options.redact, .matching = {}};
    for (const std::string& pattern : options.patterns) {
        redaction.matching.push_back(*recorder::Pattern::parse(pattern));
    }
    return redaction;
}

class Session {
public:
    explicit Session(const Options& options)
        : m_options(options)
        , m_file(options.file)
        , m_recording({.file = m_file.descriptor(),
                       .largest = options.largest.empty() ? std::nullopt : parseSize(options.largest),
                       .redaction = redactionOf(options),
                       .version = GVUSB_PROJECT_VERSION,
                       .program = std::filesystem::path(options.program.front()).filename().string()}) {}

    int run() {
        try {
            m_recording.flush();
        } catch (const std::system_error& error) {
            throw Failure(m_options.file + ": " + error.code().message());
        }
        RecordedProgram program(m_options.program, m_ring.name(),
                                {.output = m_options.file == "-" ? STDERR_FILENO : output::descriptor(),
                                 .untilSignal = m_options.untilSignal});
        // The program has the processor first. The ring, where it waits for room, keeps the recorder from falling behind.
        constexpr int lower = 5;
        ::setpriority(PRIO_PROCESS, 0, lower);
        // The ring holds what a program does in a hundred milliseconds.
        constexpr int betweenLooks = 20;
        while (!program.exitStatus()) {
            program.wait(betweenLooks);
            if (!m_hasEnded) {
                drain();
            }
            if (program.isToldToStop() && !m_hasEnded) {
                end(std::nullopt);
                printNote("the recording is complete; the program goes on");
            }
        }
        const int status = *program.exitStatus();
        if (!m_hasEnded) {
            drain();
            end(status);
        }
        return m_hasFailed && status == 0 ? static_cast<int>(ExitStatus::failure) : status;
    }

private:
    void drain() {
        try {
            m_ring.take([this](const recording_entry& entry, std::span<const std::uint8_t> data) {
                m_hasEntries = true;
                m_recording.add(entry, data);
            });
            m_recording.flush();
        } catch (const std::system_error& error) {
            fail(error);
            return;
        }
        if (m_recording.isFull() && !m_ring.isClosed()) {
            m_ring.close();
            printNote(
                "the recording has reached its largest size; the program goes on without being recorded");
        }
    }

    void fail(const std::system_error& error) {
        m_ring.close();
        m_hasEnded = true;
        m_hasFailed = true;
        // Whoever reads the recording may have seen enough.
        if (error.code() != std::errc::broken_pipe) {
            printNote(m_options.file + ": " + error.code().message() + "; the recording ends here");
        }
    }

    void end(std::optional<int> status) {
        m_ring.close();
        m_hasEnded = true;
        const std::uint64_t lost = m_ring.lost();
        if (lost != 0) {
            printNote(std::to_string(lost) + " records were lost");
        }
        try {
            m_recording.end(lost, status);
        } catch (const std::system_error& error) {
            fail(error);
        }
        if (!m_hasEntries) {
            printNote("nothing was recorded: the program has used no USB device, or cannot be recorded");
        }
    }

    const Options& m_options;
    File m_file;
    recorder::Ring m_ring;
    recorder::RecordingWriter m_recording;
    bool m_hasEntries = false;
    bool m_hasEnded = false;
    bool m_hasFailed = false;
};

} // namespace
} // namespace record_command

void addRecord(CLI::App& app, ExitStatus& status) {
    using namespace record_command;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("record", "Run a program and record what it does with readers");
    command->add_option("-o,--output", options->file, "The file to write, or - for standard output")
        ->required()
        ->type_name("FILE");
    command->add_flag("--redact", options->redact, "Replace the data of frames by a marker");
    command
        ->add_option("--redact-matching", options->patterns,
                     "Do so for frames that contain these bytes; may be repeated")
        ->type_name("PATTERN")
        ->allow_extra_args(false)
        ->check(isPattern);
    command
        ->add_option("--max-size", options->largest,
                     "End the recording before the file is larger, such as 20M")
        ->type_name("SIZE")
        ->check(isSize);
    command->add_flag("--until-signal", options->untilSignal,
                      "End the recording at the first SIGINT or SIGTERM");
    command->add_option("PROGRAM", options->program, "The program with its arguments; put -- before it")
        ->required()
        ->type_name("");
    command->footer(joinSections({about, statuses, examples}));
    command->callback([options, &status] {
        restartWithoutHotplug();
        // An earlier recording in the file is kept if there is no program to record.
        const std::optional<int> missing = reportMissingProgram(options->program.front());
        status = static_cast<ExitStatus>(missing ? *missing : Session(*options).run());
    });
}
