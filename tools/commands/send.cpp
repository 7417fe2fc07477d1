#include "base/reader_facts.h"
#include "command.h"
#include "commands/exchange.h"
#include "commands/sending.h"
#include "interruption.h"
#include "reader.h"

#include <chrono>
#include <limits>
#include <memory>
#include <optional>
#include <utility>

namespace send_command {
namespace {

constexpr const char* about = R"(
A reader that answers too late keeps its answer, and the next exchange would receive it. So answers that wait
in the reader are dropped before the first frame. After a time-out that ends the run, the late answer is
awaited for up to a second and dropped. --drain does both at every frame, which adds 20 ms to each but does
not count in the times; it applies to frames that are typed in a terminal. --no-drain does neither.

An answer may have any length over bulk endpoints, and at most 4096 bytes over control transfers.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb send 1A2B3C 02 00 07 FF 01
  gvusb send 1A2B3C 020007FF01 --repeat 1000
  gvusb send 1A2B3C --timeout 200 --json < frames.txt
)";

struct Options {
    SendingOptions sending;
    std::optional<unsigned int> timeout;
    bool drain = false;
    bool noDrain = false;
};

// How long to wait for an answer that the reader already has, and for one that it may still be working on.
constexpr std::chrono::milliseconds waitingAnswerTime(20);
constexpr std::chrono::milliseconds lateAnswerTime(1000);

// A reader of this machine.
class LocalReader final : public Counterpart {
public:
    explicit LocalReader(const Options& options)
        : m_options(options)
        , m_reader(options.sending.id)
        , m_exchanger(m_reader.handle(), options.timeout.value_or(defaultTransferTimeout))
        , m_drains(options.drain || isInteractive(options.sending)) {}

    const std::string& title() const override { return m_reader.title(); }

    Result exchange(const Bytes& frame) override {
        Exchanger::Result exchanged{.code = dropEarlierAnswers(), .answer = {}, .milliseconds = 0};
        if (exchanged.code == GVUSB_OK) {
            exchanged = m_exchanger.exchange(frame);
        }
        m_timedOut = exchanged.code == GVUSB_ERR_TIMEOUT;
        Result result;
        result.milliseconds = exchanged.milliseconds;
        if (exchanged.code < 0) {
            result.problem = libraryProblem(exchanged.code);
        } else {
            result.answer = std::move(exchanged.answer);
        }
        return result;
    }

    // After a time-out that ends the run.
    void dropLateAnswer() {
        if (m_timedOut && !m_options.noDrain) {
            const Interruption::Notice notice(stoppingNotice());
            m_exchanger.dropAnswers(lateAnswerTime);
        }
    }

private:
    // Returns 0, or the code of a failure after which the frame must not be sent.
    int dropEarlierAnswers() {
        const bool isFirst = !std::exchange(m_hasSent, true);
        if (m_options.noDrain || (!isFirst && !m_drains)) {
            return GVUSB_OK;
        }
        return m_exchanger.dropAnswers(m_timedOut ? lateAnswerTime : waitingAnswerTime);
    }

    const Options& m_options;
    Reader m_reader;
    Exchanger m_exchanger;
    bool m_drains; // before every frame, not only before the first
    bool m_hasSent = false;
    bool m_timedOut = false; // the last exchange
};

ExitStatus send(const Options& options) {
    const Interruption interruption;
    LocalReader reader(options);
    const ExitStatus status = Sending(options.sending, reader, interruption).run();
    if (!interruption.requested()) {
        reader.dropLateAnswer();
    }
    return status;
}

} // namespace
} // namespace send_command

void addSend(CLI::App& app, ExitStatus& status) {
    using namespace send_command;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("send", "Send frames to a reader and print its answers");
    addReaderArgument(*command, options->sending.id);
    command
        ->add_option("--timeout", options->timeout, "Time-out of each of the two transfers in milliseconds")
        ->type_name("MS")
        ->check(CLI::Range(1U, std::numeric_limits<unsigned int>::max()).description(""));
    addSendingArguments(*command, options->sending);
    CLI::Option* drain = command->add_flag("--drain", options->drain,
                                           "Drop late answers before every frame, not only before the first");
    command->add_flag("--no-drain", options->noDrain, "Never drop late answers")->excludes(drain);
    command->footer(joinSections({sendingHelp, about, exitStatusHelp, examples}));
    command->callback([options, &status] { status = send(*options); });
}
