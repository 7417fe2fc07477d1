#include "command.h"
#include "output.h"
#include "reader.h"

#include <memory>

namespace get_command {
namespace {

constexpr const char* keys = R"(
KEYS
  of a reader    TIMEOUT (milliseconds), DEVICEHND, DEVICE-ID, DEVICENAME, FAMILYNAME, INTERFACE,
                 TYPENUMBER, PRESENT (1 or 0)
  of the driver  HOTPLUG-MODE (0 off, 1 polling, 2 libusb's callbacks)
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb get 1A2B3C DEVICENAME
  gvusb get driver HOTPLUG-MODE
)";

struct Options {
    std::string target;
    std::string key;
};

ExitStatus get(const Options& options) {
    std::string value;
    if (options.target == "driver") {
        value = readParameter("driver", GVUSB_DRIVER, options.key);
    } else {
        value = Reader(checkedId(options.target)).parameter(options.key);
    }
    output::print(value + '\n');
    return ExitStatus::ok;
}

} // namespace
} // namespace get_command

void addGet(CLI::App& app, ExitStatus& status) {
    using namespace get_command;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("get", "Print a parameter of a reader or of the driver");
    addTargetArgument(*command, options->target);
    command->add_option("KEY", options->key, "Parameter name, in upper or lower case")
        ->required()
        ->type_name("");
    command->footer(joinSections({keys, exitStatusHelp, examples}));
    command->callback([options, &status] { status = get(*options); });
}
