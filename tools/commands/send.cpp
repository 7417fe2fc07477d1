#include "command.h"
#include "commands/exchange.h"
#include "commands/progress.h"
#include "commands/standard_input.h"
#include "commands/statistics.h"
#include "failure.h"
#include "interruption.h"
#include "json.h"
#include "output.h"
#include "reader.h"
#include "table.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <optional>

#include <unistd.h>

namespace {

struct Options {
    std::string id;
    std::vector<std::string> words;
    unsigned int timeout = 0; // the library's own
    std::size_t repeat = 1;
    bool isRepeated = false;
    bool keepGoing = false;
    bool json = false;
};

constexpr std::size_t mostRepeats = 10'000'000;

std::string milliseconds(double time) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.3f ms", time);
    return text.data();
}

// Microseconds are as fine as these times mean anything.
double rounded(double time) {
    return std::round(time * 1000) / 1000;
}

// The exchanges of one call of the command.
class Sending {
public:
    explicit Sending(const Options& options)
        : options_(options)
        , reader_(checkedId(options.id))
        , exchanger_(reader_.handle())
        , progress_(options.repeat, options.isRepeated) {
        if (options.timeout != 0)
            check(reader_.title(),
                  GVUSB_SetDevicePara(reader_.handle(), "TIMEOUT", std::to_string(options.timeout).c_str()));
    }

    ExitStatus run() {
        try {
            if (options_.words.empty())
                sendLines();
            else
                sendRepeatedly(argumentFrame());
        } catch (const Failure&) {
            summarise(); // what has been measured until then
            throw;
        }
        summarise();
        return status_;
    }

private:
    Bytes argumentFrame() const {
        std::string text;
        for (const std::string& word : options_.words)
            text += word + ' ';
        return parseFrame(text).value_or(Bytes{});
    }

    void sendLines() {
        StandardInput input(interruption_);
        for (unsigned int number = 1; std::optional<std::string> line = input.next(); ++number) {
            const std::size_t first = line->find_first_not_of(" \t\r");
            if (first == std::string::npos || (*line)[first] == '#')
                continue;
            const std::optional<Bytes> frame = parseFrame(*line);
            if (!frame)
                throw Failure("standard input, line " + std::to_string(number) + ": '" + printable(*line) +
                                  "' is not a frame in hexadecimal",
                              ExitStatus::usage);
            if (!sendRepeatedly(*frame))
                return;
        }
    }

    // False when nothing more is to be sent.
    bool sendRepeatedly(const Bytes& frame) {
        lastShown_.reset();
        for (std::size_t i = 0; i < options_.repeat; ++i) {
            if (interruption_.wished() || !sendOnce(frame))
                return false;
            progress_.show(i + 1, failed_);
        }
        return true;
    }

    bool sendOnce(const Bytes& frame) {
        const Exchanger::Result result = exchanger_.exchange(frame);
        if (options_.json)
            output::print(jsonLine(object(frame, result)));
        if (result.code < 0) {
            noteFailure(result.code);
            return options_.keepGoing && result.code != GVUSB_ERR_NOT_PRESENT;
        }
        times_.add(result.milliseconds);
        if (!options_.json)
            showAnswer(result.answer);
        return true;
    }

    // When a frame is repeated, only answers that differ from the one before are worth a line.
    void showAnswer(const Bytes& answer) {
        if (options_.isRepeated && lastShown_ == answer)
            return;
        progress_.clear();
        output::print(frameText(answer) + '\n');
        lastShown_ = answer;
    }

    void noteFailure(int code) {
        ++failed_;
        progress_.clear();
        std::fprintf(stderr, "gvusb: %s: %s\n", reader_.title().c_str(), libraryText(code).c_str());
        // A time-out tells less than any other failure.
        if (status_ == ExitStatus::ok || status_ == ExitStatus::timeOut)
            status_ = statusOf(code);
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
        return json;
    }

    void summarise() {
        progress_.clear();
        if (options_.isRepeated)
            output::print(options_.json ? jsonLine({{"summary", summaryObject()}}) : summaryTable());
    }

    Json summaryObject() const {
        Json json = {{"answered", times_.count()}, {"failed", failed_}};
        if (times_.count() != 0) {
            json["ms"] = {{"minimum", rounded(times_.minimum())},
                          {"median", rounded(times_.median())},
                          {"p99", rounded(times_.percentile(99))},
                          {"maximum", rounded(times_.maximum())}};
        }
        return json;
    }

    std::string summaryTable() const {
        Table table;
        table.add({"answered", std::to_string(times_.count())});
        table.add({"failed", std::to_string(failed_)});
        if (times_.count() != 0) {
            table.add({"minimum", milliseconds(times_.minimum())});
            table.add({"median", milliseconds(times_.median())});
            table.add({"99th percentile", milliseconds(times_.percentile(99))});
            table.add({"maximum", milliseconds(times_.maximum())});
        }
        return table.text();
    }

    const Options& options_;
    Interruption interruption_;
    Reader reader_;
    Exchanger exchanger_;
    Progress progress_;
    ExchangeTimes times_;
    std::optional<Bytes> lastShown_;
    std::size_t failed_ = 0;
    ExitStatus status_ = ExitStatus::ok;
};

const CLI::Validator isFrame(
    [](std::string& text) {
        return parseFrame(text) ? std::string{} : "'" + text + "' is not a frame in hexadecimal";
    },
    "");

} // namespace

void addSend(CLI::App& app, Action& action) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("send", "Send frames to a reader and print its answers");
    addReaderArgument(*command, options->id);
    command->add_option("HEX", options->words, "The frame in hexadecimal, in one word or several")
        ->type_name("")
        ->check(isFrame);
    command->add_option("--timeout", options->timeout, "Milliseconds that each of the two transfers may take")
        ->type_name("MS")
        ->check(CLI::Range(1U, std::numeric_limits<unsigned int>::max()).description(""));
    CLI::Option* repeat = command
                              ->add_option("--repeat", options->repeat,
                                           "Send each frame N times and tell how long the exchanges took")
                              ->type_name("N")
                              ->check(CLI::Range(std::size_t{1}, mostRepeats).description(""));
    command->add_flag("--keep-going", options->keepGoing, "Go on after a failure, unless the reader is gone");
    command->add_flag("--json", options->json, "Write an object for each exchange, one a line");
    command->footer(
        std::string("Without HEX each line of standard input is a frame; empty lines and lines that begin "
                    "with '#' are\n"
                    "skipped. Bytes may be written together or apart, with 0x and with ':', '-' or ',' "
                    "between them.\n\n"
                    "With --repeat an answer is printed when it differs from the one before, then how many "
                    "frames were\n"
                    "answered and the times of these exchanges. Ctrl-C ends the run and shows the summary so "
                    "far;\n"
                    "the status tells of the exchanges until then.\n\n") +
        exitStatusHelp +
        "With --keep-going the status tells of a failure that was no time-out before it tells of "
        "time-outs.\n"
        "\nEXAMPLES\n"
        "  gvusb send 1A2B3C 02 00 07 FF 01\n"
        "  gvusb send 1A2B3C 020007FF01 --repeat 1000\n"
        "  gvusb send 1A2B3C --timeout 200 --json < frames.txt\n");
    command->callback([options, repeat, &action] {
        options->isRepeated = repeat->count() != 0;
        action = [options] { return Sending(*options).run(); };
    });
}
