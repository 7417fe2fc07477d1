#include "command.h"
#include "output.h"
#include "reader.h"

#include <memory>

namespace {

struct Options {
    std::string target;
    std::string key;
};

ExitStatus get(const Options& options) {
    std::string value;
    if (options.target == "driver")
        value = readParameter("driver", GVUSB_DRIVER, options.key);
    else
        value = Reader(checkedId(options.target)).parameter(options.key);
    output::print(value + '\n');
    return ExitStatus::ok;
}

} // namespace

void addGet(CLI::App& app, Action& action) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("get", "Print a parameter of a reader or of the driver");
    addTargetArgument(*command, options->target);
    command->add_option("KEY", options->key, "Name of the parameter, in upper or lower case")
        ->required()
        ->type_name("");
    command->footer(
        std::string("KEYS\n"
                    "  of a reader    TIMEOUT (milliseconds), DEVICEHND, DEVICE-ID, DEVICENAME, "
                    "FAMILYNAME,\n"
                    "                 INTERFACE, TYPENUMBER, PRESENT (1 or 0)\n"
                    "  of the driver  HOTPLUG-MODE (0 off, 1 polling, 2 libusb's callbacks)\n\n") +
        exitStatusHelp +
        "\nEXAMPLES\n"
        "  gvusb get 1A2B3C DEVICENAME\n"
        "  gvusb get driver HOTPLUG-MODE\n");
    command->callback([options, &action] { action = [options] { return get(*options); }; });
}
