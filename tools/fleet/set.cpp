#include "commands/parameters.h"
#include "failure.h"
#include "fleet/command.h"
#include "fleet/requester.h"
#include "fleet/target.h"
#include "json.h"
#include "output.h"

#include <charconv>
#include <chrono>
#include <memory>
#include <string>
#include <system_error>

namespace fleet_set {
namespace {

constexpr const char* keys = R"(
KEYS
  TIMEOUT      milliseconds, 1 to 60000, of each transfer of this reader, for all who use it over the broker
  RESETPIPE    clears a halt of the bulk endpoints and drops an answer that waits in the reader
  RESETDEVICE  resets the reader
  CANCEL       ends the call that is running on the reader, and does not wait behind other requests

TIMEOUT lasts until it is set again or the service ends.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb --broker mqtt://localhost set gate-7/1A2B3C TIMEOUT 200
)";

struct Options {
    std::string reader;
    std::string key;
    std::string value;
    unsigned int timeout = defaultAnswerTimeout;
    bool json = false;
};

[[noreturn]] void reject(const std::string& why) {
    throw Failure(why, ExitStatus::usage, "Run 'gvusb --broker ADDRESS set --help' for more.");
}

// A service would refuse such a request, too.
void requireValid(const std::string& key, const std::string& value) {
    constexpr unsigned int longest = 60'000;
    if (key == "TIMEOUT") {
        unsigned int milliseconds = 0;
        const char* const end = value.data() + value.size();
        const auto [stop, error] = std::from_chars(value.data(), end, milliseconds);
        if (error != std::errc{} || stop != end || milliseconds < 1 || milliseconds > longest) {
            reject("TIMEOUT: '" + value + "' is not a number of milliseconds (1 to 60000)");
        }
    } else if (key != "RESETPIPE" && key != "RESETDEVICE" && key != "CANCEL") {
        reject("'" + key + "' cannot be set");
    } else if (!value.empty()) {
        reject(key + " has no value");
    }
}

ExitStatus set(const Options& options, const FleetOptions& fleet) {
    const std::string key = inUpperCase(options.key);
    requireValid(key, options.value);
    Connection connection(fleet);
    Requester requester(connection, fleet, parseFleetTarget(options.reader).value(),
                        std::chrono::milliseconds(options.timeout));
    requester.require(requester.title() + ": " + key, fleet::Operation::set,
                      options.value.empty() ? key : key + '=' + options.value);
    if (options.json) {
        output::print(jsonLine({{"machine", requester.target().machine},
                                {"target", options.reader},
                                {"key", options.key},
                                {"value", options.value.empty() ? Json(nullptr) : Json(options.value)},
                                {"lasting", true}},
                               2));
    }
    return ExitStatus::ok;
}

} // namespace
} // namespace fleet_set

void addFleetSet(CLI::App& app, const FleetOptions& fleet, ExitStatus& status) {
    using namespace fleet_set;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("set", "Change a parameter of a reader");
    addFleetReaderArgument(*command, options->reader);
    command->add_option("KEY", options->key, "Parameter name, in upper or lower case")
        ->required()
        ->type_name("");
    command->add_option("VALUE", options->value, "New value; only TIMEOUT takes one")->type_name("");
    addAnswerTimeout(*command, options->timeout);
    command->add_flag("--json", options->json, "Print an object that says what was set");
    command->footer(joinSections({keys, exitStatusHelp, examples}));
    command->callback([options, &fleet, &status] { status = set(*options, fleet); });
}
