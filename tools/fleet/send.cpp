#include "commands/sending.h"
#include "fleet/command.h"
#include "fleet/requester.h"
#include "fleet/target.h"
#include "interruption.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include <poll.h>

namespace fleet_send {
namespace {

constexpr const char* about = R"(
The time of --timeout includes the way to the reader and back and the wait in the reader's queue. A request
that has waited for so long, in whole seconds, is not run. The time-out of the reader's transfers is another
one, the parameter TIMEOUT of the reader: a failure with GVUSB_ERR_TIMEOUT comes from there. The answer of a
reader that is too late waits in it; 'gvusb --broker ADDRESS set MACHINE/ID RESETPIPE' drops it.

The times of the summary are those between the request and its answer here.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb --broker mqtt://localhost send gate-7/1A2B3C 02 00 07 FF 01
  gvusb --broker mqtt://localhost send gate-7/1A2B3C 0200 --repeat 1000 --timeout 200
)";

struct Options {
    SendingOptions sending;
    unsigned int timeout = defaultAnswerTimeout;
};

// A reader of another machine.
class RemoteReader final : public Counterpart {
public:
    RemoteReader(Connection& connection, Requester& requester)
        : m_connection(connection)
        , m_requester(requester)
        , m_title(requester.title()) {}

    const std::string& title() const override { return m_title; }

    Json identity() const override {
        return {{"machine", m_requester.target().machine}, {"reader", m_requester.target().reader}};
    }

    Result exchange(const Bytes& frame) override {
        using Clock = std::chrono::steady_clock;
        const auto start = Clock::now();
        Requester::Reply reply =
            m_requester.request(fleet::Operation::transceive, std::string(frame.begin(), frame.end()));
        Result result;
        result.milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        result.answer.assign(reply.payload.begin(), reply.payload.end());
        result.problem = std::move(reply.problem);
        result.details["status"] = reply.status ? Json(fleet::statusName(*reply.status)) : Json(nullptr);
        return result;
    }

    // The broker ends a connection without traffic.
    void wait(std::span<pollfd> descriptors) override {
        const auto isReady = [](const pollfd& each) { return each.revents != 0; };
        while (std::ranges::none_of(descriptors, isReady)) {
            m_connection.wait(-1, descriptors);
        }
    }

private:
    Connection& m_connection;
    Requester& m_requester;
    std::string m_title;
};

ExitStatus send(const Options& options, const FleetOptions& fleet) {
    Connection connection(fleet);
    Requester requester(connection, fleet, parseFleetTarget(options.sending.id).value(),
                        std::chrono::milliseconds(options.timeout));
    RemoteReader reader(connection, requester);
    const Interruption interruption;
    return Sending(options.sending, reader, interruption).run();
}

} // namespace
} // namespace fleet_send

void addFleetSend(CLI::App& app, const FleetOptions& fleet, ExitStatus& status) {
    using namespace fleet_send;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("send", "Send frames to a reader and print its answers");
    addFleetReaderArgument(*command, options->sending.id);
    addAnswerTimeout(*command, options->timeout);
    addSendingArguments(*command, options->sending);
    command->footer(joinSections({sendingHelp, about, exitStatusHelp, examples}));
    command->callback([options, &fleet, &status] { status = send(*options, fleet); });
}
