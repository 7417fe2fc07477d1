#include "command.h"
#include "failure.h"
#include "reader.h"

#include <memory>

namespace {

struct Options {
    std::string target;
    std::string key;
    std::string value;
};

void setParameter(const std::string& title, int handle, const Options& options) {
    const std::string what = title + ": " + options.key;
    const int code = GVUSB_SetDevicePara(handle, options.key.c_str(), options.value.c_str());
    if (code == GVUSB_ERR_OUT_OF_RANGE && options.value.empty())
        throw Failure(what + ": " + libraryText(code), ExitStatus::failure,
                      "No value was given; see 'gvusb set --help'.");
    check(what, code);
}

ExitStatus set(const Options& options) {
    if (options.target == "driver") {
        setParameter("driver", GVUSB_DRIVER, options);
    } else {
        const Reader reader(checkedId(options.target));
        setParameter(reader.title(), reader.handle(), options);
    }
    return ExitStatus::ok;
}

} // namespace

void addSet(CLI::App& app, Action& action) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("set", "Change a parameter of a reader or of the driver");
    addTargetArgument(*command, options->target);
    command->add_option("KEY", options->key, "Name of the parameter, in upper or lower case")
        ->required()
        ->type_name("");
    command->add_option("VALUE", options->value, "The new value; the two resets take none")->type_name("");
    command->footer(
        std::string(
            "KEYS\n"
            "  of a reader    RESETDEVICE resets it, RESETPIPE clears a halt of its bulk endpoints,\n"
            "                 TIMEOUT (milliseconds, at least 1)\n"
            "  of the driver  HOTPLUG-UPDATERATE (microseconds, at least 10), HOTPLUG-SUSPEND (1 or "
            "0)\n\n"
            "Only the resets outlast the command. The other settings belong to the process that makes "
            "them, so\n"
            "here they tell no more than whether a value is accepted; see 'gvusb send --timeout'.\n\n") +
        exitStatusHelp + "\nEXAMPLES\n  gvusb set 1A2B3C RESETDEVICE\n");
    command->callback([options, &action] { action = [options] { return set(*options); }; });
}
