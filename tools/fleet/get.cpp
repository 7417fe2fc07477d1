#include "commands/parameters.h"
#include "fleet/command.h"
#include "fleet/requester.h"
#include "fleet/target.h"

#include <chrono>
#include <memory>
#include <string>

namespace fleet_get {
namespace {

constexpr const char* keys = R"(
KEYS
  TIMEOUT (milliseconds), DEVICEHND, DEVICE-ID, DEVICENAME, FAMILYNAME, INTERFACE, TYPENUMBER,
  PRESENT (1 or 0)

Without KEY, all of them are printed, with '-' (null in JSON) for what the reader does not have. In JSON, the
members are 'machine' and the keys, in upper case, and all values are texts.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb --broker mqtt://localhost get gate-7/1A2B3C TIMEOUT
)";

struct Options {
    std::string reader;
    std::string key;
    unsigned int timeout = defaultAnswerTimeout;
    bool json = false;
};

ExitStatus get(const Options& options, const FleetOptions& fleet) {
    Connection connection(fleet);
    Requester requester(connection, fleet, parseFleetTarget(options.reader).value(),
                        std::chrono::milliseconds(options.timeout));
    const Json identity = {{"machine", requester.target().machine}};
    if (options.key.empty()) {
        printParameters(
            readerKeys, [&requester](const std::string& key) { return requester.parameter(key); },
            options.json, identity);
    } else {
        const std::string key = inUpperCase(options.key);
        const std::string value =
            requester.require(requester.title() + ": " + options.key, fleet::Operation::get, key);
        printParameter(key, value, options.json, identity);
    }
    return ExitStatus::ok;
}

} // namespace
} // namespace fleet_get

void addFleetGet(CLI::App& app, const FleetOptions& fleet, ExitStatus& status) {
    using namespace fleet_get;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("get", "Print parameters of a reader");
    addFleetReaderArgument(*command, options->reader);
    command->add_option("KEY", options->key, "Parameter name, in upper or lower case; without it, print all")
        ->type_name("");
    addAnswerTimeout(*command, options->timeout);
    command->add_flag("--json", options->json, "Print an object with the parameters");
    command->footer(joinSections({keys, exitStatusHelp, examples}));
    command->callback([options, &fleet, &status] { status = get(*options, fleet); });
}
