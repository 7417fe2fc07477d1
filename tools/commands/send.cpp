#include "base/reader_facts.h"
#include "command.h"
#include "commands/exchange.h"
#include "commands/histogram.h"
#include "commands/progress.h"
#include "commands/standard_input.h"
#include "commands/statistics.h"
#include "explanations.h"
#include "failure.h"
#include "interruption.h"
#include "json.h"
#include "output.h"
#include "printable_text.h"
#include "reader.h"
#include "table.h"

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <optional>
#include <utility>

#include <unistd.h>

namespace send_command {
namespace {

constexpr const char* about = R"(
Without HEX, each line of standard input is a frame; empty lines and lines that start with '#' are skipped.
Bytes may be written together or apart, with or without 0x, and separated by blanks, ':', '-' or ','.

With --repeat, an answer is printed only if it differs from the one before. At the end, a summary shows how
many frames were answered and how long these exchanges took, in a terminal with a histogram. Ctrl-C ends the
run early and prints the summary so far; the exit status is that of the exchanges until then.

With --keep-going, the exit status is 3 only if all failures were time-outs.

A reader that answers too late keeps its answer, and the next exchange would receive it. So answers that wait
in the reader are dropped before the first frame. After a time-out that ends the run, the late answer is
awaited for up to a second and dropped. --drain does both at every frame, which adds 20 ms
to each but does not count in the times; --no-drain does neither.

An answer may have any length over bulk endpoints, and at most 4096 bytes over control transfers.

Frames that are typed in a terminal are read at a prompt. There, a failure or an invalid line does not end
the command, and --drain applies. Ctrl-D ends it.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb send 1A2B3C 02 00 07 FF 01
  gvusb send 1A2B3C 020007FF01 --repeat 1000
  gvusb send 1A2B3C --timeout 200 --json < frames.txt
)";

struct Options {
    std::string id;
    std::vector<std::string> words;
    std::optional<unsigned int> timeout;
    std::optional<std::size_t> repeat;
    bool keepGoing = false;
    bool drain = false;
    bool noDrain = false;
    bool json = false;
};

constexpr std::size_t maxRepeat = 10'000'000;

// How long to wait for an answer that the reader already has, and for one that it may still be working on.
constexpr std::chrono::milliseconds waitingAnswerTime(20);
constexpr std::chrono::milliseconds lateAnswerTime(1000);

std::string milliseconds(double time) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.3f ms", time);
    return text.data();
}

// Below a microsecond these times mean nothing.
double rounded(double time) {
    return std::round(time * 1000) / 1000;
}

// The exchanges of one run of the command.
class Sending {
public:
    explicit Sending(const Options& options)
        : m_options(options)
        , m_reader(options.id)
        , m_exchanger(m_reader.handle(), options.timeout.value_or(defaultTransferTimeout))
        , m_progress(options.repeat.value_or(1), options.repeat.has_value())
        , m_isInteractive(options.words.empty() && StandardInput::isTerminal()) {}

    ExitStatus run() {
        try {
            if (m_options.words.empty()) {
                sendStandardInput();
            } else {
                sendRepeatedly(argumentFrame());
            }
        } catch (const Failure&) {
            printSummary();
            throw;
        }
        printSummary();
        if (m_timedOut && !m_options.noDrain && !m_interruption.requested()) {
            const Interruption::Notice notice(stoppingNotice());
            m_exchanger.dropAnswers(lateAnswerTime);
        }
        return m_status;
    }

private:
    Bytes argumentFrame() const {
        std::string text;
        for (const std::string& word : m_options.words) {
            text += word + ' ';
        }
        return parseFrame(text).value_or(Bytes{});
    }

    void sendStandardInput() {
        StandardInput input(m_interruption);
        for (unsigned int number = 1;; ++number) {
            prompt();
            const std::optional<std::string> line = input.nextLine();
            if (!line) {
                break;
            }
            const std::size_t first = line->find_first_not_of(" \t\r");
            if (first == std::string::npos || (*line)[first] == '#') {
                continue;
            }
            const std::optional<Bytes> frame = parseFrame(*line);
            if (!frame) {
                rejectLine(number, *line);
                continue;
            }
            if (!sendRepeatedly(*frame)) {
                return;
            }
        }
        if (m_isInteractive) {
            std::fputc('\n', stderr); // after the prompt
        }
    }

    void prompt() const {
        if (m_isInteractive) {
            std::fprintf(stderr, "%s> ", m_options.id.c_str());
        }
    }

    void rejectLine(unsigned int number, const std::string& line) {
        const std::string mistake = "'" + printable(line) + "' is not a hexadecimal frame";
        if (!m_isInteractive) {
            throw Failure("standard input, line " + std::to_string(number) + ": " + mistake,
                          ExitStatus::usage);
        }
        std::fprintf(stderr, "gvusb: %s\n", mistake.c_str());
        if (m_status == ExitStatus::ok) {
            m_status = ExitStatus::usage;
        }
    }

    // False ends the run.
    bool sendRepeatedly(const Bytes& frame) {
        m_lastPrinted.reset();
        for (std::size_t i = 0; i < m_options.repeat.value_or(1); ++i) {
            if (m_interruption.requested() || !sendOnce(frame)) {
                return false;
            }
            m_progress.show(i + 1, m_failed);
        }
        return true;
    }

    bool sendOnce(const Bytes& frame) {
        Exchanger::Result result;
        {
            const Interruption::Notice notice(stoppingNotice());
            result.code = dropEarlierAnswers();
            if (result.code == GVUSB_OK) {
                result = m_exchanger.exchange(frame);
            }
        }
        m_timedOut = result.code == GVUSB_ERR_TIMEOUT;
        if (m_options.json) {
            output::print(jsonLine(object(frame, result)));
        }
        if (result.code < 0) {
            reportFailure(result.code);
            return (m_options.keepGoing || m_isInteractive) && result.code != GVUSB_ERR_NOT_PRESENT;
        }
        m_times.add(result.milliseconds);
        if (!m_options.json) {
            printAnswer(result.answer);
        }
        return true;
    }

    // The terminal's cursor is behind "^C" or the progress line.
    static const char* stoppingNotice() {
        return ::isatty(STDERR_FILENO) != 0
                   ? "\ngvusb: stopping after this exchange; press Ctrl-C again to stop at once\n"
                   : "gvusb: stopping after this exchange; another signal stops at once\n";
    }

    // Returns 0, or the code of a failure after which the frame must not be sent.
    int dropEarlierAnswers() {
        const bool isFirst = !std::exchange(m_hasSent, true);
        const bool isWanted = isFirst || m_options.drain || m_isInteractive;
        if (m_options.noDrain || !isWanted) {
            return GVUSB_OK;
        }
        return m_exchanger.dropAnswers(m_timedOut ? lateAnswerTime : waitingAnswerTime);
    }

    void printAnswer(const Bytes& answer) {
        if (m_options.repeat && m_lastPrinted == answer) {
            return;
        }
        m_progress.clear();
        output::print(frameText(answer) + '\n');
        m_lastPrinted = answer;
    }

    void reportFailure(int code) {
        ++m_failed;
        m_progress.clear();
        std::fprintf(stderr, "gvusb: %s: %s\n", m_reader.title().c_str(), codeText(code).c_str());
        // Any other failure says more than a time-out.
        if (m_status == ExitStatus::ok || m_status == ExitStatus::timeOut) {
            m_status = statusOf(code);
        }
    }

    static Json nameOf(int code) {
        const Explanation* const found = findExplanation(code);
        return found == nullptr ? Json(nullptr) : Json(found->name);
    }

    static Json object(const Bytes& frame, const Exchanger::Result& result) {
        Json json = {{"sent", frameText(frame, "")}};
        if (result.code < 0) {
            json["code"] = result.code;
            json["error"] = libraryText(result.code);
        } else {
            json["received"] = frameText(result.answer, "");
        }
        json["ms"] = rounded(result.milliseconds);
        if (result.code < 0) {
            json["name"] = nameOf(result.code);
        }
        return json;
    }

    void printSummary() {
        m_progress.clear();
        if (m_options.repeat) {
            output::print(m_options.json ? jsonLine({{"summary", summaryObject()}}) : summaryTable());
            if (!m_options.json && output::isTerminal() && m_times.count() > 1) {
                output::print('\n' + histogram(m_times.sorted(), output::width()));
            }
        }
    }

    Json summaryObject() const {
        Json json = {{"answered", m_times.count()}, {"failed", m_failed}};
        if (m_times.count() != 0) {
            json["ms"] = {{"minimum", rounded(m_times.minimum())},
                          {"median", rounded(m_times.median())},
                          {"p99", rounded(m_times.percentile(99))},
                          {"maximum", rounded(m_times.maximum())}};
        }
        return json;
    }

    std::string summaryTable() const {
        Table table;
        table.add({"answered", std::to_string(m_times.count())});
        table.add({"failed", std::to_string(m_failed)});
        if (m_times.count() != 0) {
            table.add({"minimum", milliseconds(m_times.minimum())});
            table.add({"median", milliseconds(m_times.median())});
            table.add({"99th percentile", milliseconds(m_times.percentile(99))});
            table.add({"maximum", milliseconds(m_times.maximum())});
        }
        return table.text();
    }

    const Options& m_options;
    Interruption m_interruption;
    Reader m_reader;
    Exchanger m_exchanger;
    Progress m_progress;
    bool m_isInteractive;
    bool m_hasSent = false;
    bool m_timedOut = false; // the last exchange
    ExchangeTimes m_times;
    std::optional<Bytes> m_lastPrinted;
    std::size_t m_failed = 0;
    ExitStatus m_status = ExitStatus::ok;
};

const CLI::Validator isFrame(
    [](std::string& text) {
        return parseFrame(text) ? std::string{} : "'" + text + "' is not a hexadecimal frame";
    },
    "");

} // namespace
} // namespace send_command

void addSend(CLI::App& app, ExitStatus& status) {
    using namespace send_command;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("send", "Send frames to a reader and print its answers");
    addReaderArgument(*command, options->id);
    command->add_option("HEX", options->words, "Frame in hexadecimal, as one word or several")
        ->type_name("")
        ->check(isFrame);
    command
        ->add_option("--timeout", options->timeout, "Time-out of each of the two transfers in milliseconds")
        ->type_name("MS")
        ->check(CLI::Range(1U, std::numeric_limits<unsigned int>::max()).description(""));
    command->add_option("--repeat", options->repeat, "Send each frame N times and print how long it took")
        ->type_name("N")
        ->check(CLI::Range(std::size_t{1}, maxRepeat).description(""));
    command->add_flag("--keep-going", options->keepGoing,
                      "Continue after a failure, unless the reader is gone");
    CLI::Option* drain = command->add_flag("--drain", options->drain,
                                           "Drop late answers before every frame, not only before the first");
    command->add_flag("--no-drain", options->noDrain, "Never drop late answers")->excludes(drain);
    command->add_flag("--json", options->json, "Print an object for each exchange, one per line");
    command->footer(joinSections({about, exitStatusHelp, examples}));
    command->callback([options, &status] { status = Sending(*options).run(); });
}
