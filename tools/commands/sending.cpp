#include "commands/sending.h"

#include "command_line.h"
#include "commands/histogram.h"
#include "commands/standard_input.h"
#include "explanations.h"
#include "output.h"
#include "printable_text.h"
#include "table.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>

#include <unistd.h>

namespace sending {
namespace {

constexpr std::size_t maxRepeat = 10'000'000;

std::string milliseconds(double time) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.3f ms", time);
    return text.data();
}

// Below a microsecond these times mean nothing.
double rounded(double time) {
    return std::round(time * 1000) / 1000;
}

Json nameOf(const std::optional<int>& code) {
    const Explanation* const found = code ? findExplanation(*code) : nullptr;
    return found == nullptr ? Json(nullptr) : Json(found->name);
}

const CLI::Validator isFrame(
    [](std::string& text) {
        return parseFrame(text) ? std::string{} : "'" + text + "' is not a hexadecimal frame";
    },
    "");

} // namespace
} // namespace sending

const char* const sendingHelp = R"(
Without HEX, each line of standard input is a frame; empty lines and lines that start with '#' are skipped.
Bytes may be written together or apart, with or without 0x, and separated by blanks, ':', '-' or ','.

With --repeat, an answer is printed only if it differs from the one before. At the end, a summary shows how
many frames were answered and how long these exchanges took, in a terminal with a histogram. Ctrl-C ends the
run early and prints the summary so far; the exit status is that of the exchanges until then.

With --keep-going, the exit status is 3 only if all failures were time-outs.

Frames that are typed in a terminal are read at a prompt. There, a failure or an invalid line does not end
the command. Ctrl-D ends it.
)";

void addSendingArguments(CLI::App& command, SendingOptions& options) {
    using namespace sending;
    command.add_option("HEX", options.words, "Frame in hexadecimal, as one word or several")
        ->type_name("")
        ->check(isFrame);
    command.add_option("--repeat", options.repeat, "Send each frame N times and print how long it took")
        ->type_name("N")
        ->check(CLI::Range(std::size_t{1}, maxRepeat).description(""));
    command.add_flag("--keep-going", options.keepGoing,
                     "Continue after a failure, unless the reader is gone");
    command.add_flag("--json", options.json, "Print an object for each exchange, one per line");
}

bool isInteractive(const SendingOptions& options) {
    return options.words.empty() && StandardInput::isTerminal();
}

const char* stoppingNotice() {
    // The terminal's cursor is behind "^C" or the progress line.
    return ::isatty(STDERR_FILENO) != 0
               ? "\ngvusb: stopping after this exchange; press Ctrl-C again to stop at once\n"
               : "gvusb: stopping after this exchange; another signal stops at once\n";
}

void Counterpart::wait(std::span<pollfd> descriptors) {
    while (::poll(descriptors.data(), descriptors.size(), -1) < 0 && errno == EINTR) {
    }
}

Sending::Sending(const SendingOptions& options, Counterpart& counterpart, const Interruption& interruption)
    : m_options(options)
    , m_counterpart(counterpart)
    , m_interruption(interruption)
    , m_progress(options.repeat.value_or(1), options.repeat.has_value())
    , m_isInteractive(isInteractive(options)) {
}

ExitStatus Sending::run() {
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
    return m_status;
}

Bytes Sending::argumentFrame() const {
    std::string text;
    for (const std::string& word : m_options.words) {
        text += word + ' ';
    }
    return parseFrame(text).value_or(Bytes{});
}

void Sending::sendStandardInput() {
    StandardInput input(m_interruption,
                        [this](std::span<pollfd> descriptors) { m_counterpart.wait(descriptors); });
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

void Sending::prompt() const {
    if (m_isInteractive) {
        std::fprintf(stderr, "%s> ", m_options.id.c_str());
    }
}

void Sending::rejectLine(unsigned int number, const std::string& line) {
    const std::string mistake = "'" + printable(line) + "' is not a hexadecimal frame";
    if (!m_isInteractive) {
        throw Failure("standard input, line " + std::to_string(number) + ": " + mistake, ExitStatus::usage);
    }
    std::fprintf(stderr, "gvusb: %s\n", mistake.c_str());
    if (m_status == ExitStatus::ok) {
        m_status = ExitStatus::usage;
    }
}

// False ends the run.
bool Sending::sendRepeatedly(const Bytes& frame) {
    m_lastPrinted.reset();
    for (std::size_t i = 0; i < m_options.repeat.value_or(1); ++i) {
        if (m_interruption.requested() || !sendOnce(frame)) {
            return false;
        }
        m_progress.show(i + 1, m_failed);
    }
    return true;
}

bool Sending::sendOnce(const Bytes& frame) {
    Counterpart::Result result;
    {
        const Interruption::Notice notice(stoppingNotice());
        result = m_counterpart.exchange(frame);
    }
    if (m_options.json) {
        output::print(jsonLine(object(frame, result)));
    }
    if (result.problem) {
        reportFailure(*result.problem);
        return (m_options.keepGoing || m_isInteractive) && result.problem->status != ExitStatus::notFound;
    }
    m_times.add(result.milliseconds);
    if (!m_options.json) {
        printAnswer(result.answer);
    }
    return true;
}

void Sending::printAnswer(const Bytes& answer) {
    if (m_options.repeat && m_lastPrinted == answer) {
        return;
    }
    m_progress.clear();
    output::print(frameText(answer) + '\n');
    m_lastPrinted = answer;
}

void Sending::reportFailure(const Problem& problem) {
    ++m_failed;
    m_progress.clear();
    std::fprintf(stderr, "gvusb: %s: %s\n", m_counterpart.title().c_str(), messageOf(problem).c_str());
    // Any other failure says more than a time-out.
    if (m_status == ExitStatus::ok || m_status == ExitStatus::timeOut) {
        m_status = problem.status;
    }
}

Json Sending::object(const Bytes& frame, const Counterpart::Result& result) const {
    Json json = m_counterpart.identity();
    json["sent"] = frameText(frame, "");
    if (result.problem) {
        json["code"] = result.problem->code ? Json(*result.problem->code) : Json(nullptr);
        json["error"] = result.problem->text;
    } else {
        json["received"] = frameText(result.answer, "");
    }
    json["ms"] = sending::rounded(result.milliseconds);
    if (result.problem) {
        json["name"] = sending::nameOf(result.problem->code);
    }
    json.update(result.details);
    return json;
}

void Sending::printSummary() {
    m_progress.clear();
    if (m_options.repeat) {
        output::print(m_options.json ? jsonLine({{"summary", summaryObject()}}) : summaryTable());
        if (!m_options.json && output::isTerminal() && m_times.count() > 1) {
            output::print('\n' + histogram(m_times.sorted(), output::width()));
        }
    }
}

Json Sending::summaryObject() const {
    Json json = {{"answered", m_times.count()}, {"failed", m_failed}};
    if (m_times.count() != 0) {
        json["ms"] = {{"minimum", sending::rounded(m_times.minimum())},
                      {"median", sending::rounded(m_times.median())},
                      {"p99", sending::rounded(m_times.percentile(99))},
                      {"maximum", sending::rounded(m_times.maximum())}};
    }
    return json;
}

std::string Sending::summaryTable() const {
    Table table;
    table.add({"answered", std::to_string(m_times.count())});
    table.add({"failed", std::to_string(m_failed)});
    if (m_times.count() != 0) {
        table.add({"minimum", sending::milliseconds(m_times.minimum())});
        table.add({"median", sending::milliseconds(m_times.median())});
        table.add({"99th percentile", sending::milliseconds(m_times.percentile(99))});
        table.add({"maximum", sending::milliseconds(m_times.maximum())});
    }
    return table.text();
}
