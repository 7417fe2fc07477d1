#include "commands/reader_details.h"
#include "fleet/command.h"
#include "fleet/directory.h"
#include "fleet/requester.h"
#include "fleet/target.h"

#include <chrono>
#include <memory>
#include <string>

namespace fleet_info {
namespace {

constexpr const char* about = R"(
The device handle is that of the service on the machine.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb --broker mqtt://localhost info gate-7/1A2B3C
)";

struct Options {
    std::string reader;
    unsigned int timeout = defaultAnswerTimeout;
    bool json = false;
};

ExitStatus info(const Options& options, const FleetOptions& fleet) {
    Connection connection(fleet);
    const FleetTarget target = parseFleetTarget(options.reader).value();
    const Directory directory = readDirectory(connection, fleet.prefix, target.machine);
    Requester requester(connection, fleet, target, std::chrono::milliseconds(options.timeout));
    ReaderDetails details([&requester](const char* key) { return requester.parameter(key); });
    const Directory::Reader* const known = directory.find(target.machine, target.reader);
    details.addMachine(target.machine);
    details.addLocation(known == nullptr ? std::nullopt : known->facts.location);
    details.print(options.json);
    return ExitStatus::ok;
}

} // namespace
} // namespace fleet_info

void addFleetInfo(CLI::App& app, const FleetOptions& fleet, ExitStatus& status) {
    using namespace fleet_info;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("info", "Show everything that one reader reports about itself");
    addFleetReaderArgument(*command, options->reader);
    addAnswerTimeout(*command, options->timeout);
    command->add_flag("--json", options->json, "Print an object instead of a table");
    command->footer(joinSections({about, exitStatusHelp, examples}));
    command->callback([options, &fleet, &status] { status = info(*options, fleet); });
}
