#include "command.h"
#include "failure.h"
#include "reader.h"

#include <memory>

namespace set_command {
namespace {

constexpr const char* keys = R"(
KEYS
  of a reader    RESETDEVICE resets the reader; RESETPIPE clears a halt of its bulk endpoints;
                 TIMEOUT (milliseconds, at least 1)
  of the driver  HOTPLUG-UPDATERATE (microseconds, at least 10), HOTPLUG-SUSPEND (1 or 0)

Only the two resets have a lasting effect. The other settings end with the process that makes them, so here
they only show whether a value is accepted. To change the time-out of an exchange, use
'gvusb send --timeout'.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb set 1A2B3C RESETDEVICE
)";

struct Options {
    std::string target;
    std::string key;
    std::string value;
};

void setParameter(const std::string& title, int handle, const Options& options) {
    const std::string what = title + ": " + options.key;
    const int code = GVUSB_SetDevicePara(handle, options.key.c_str(), options.value.c_str());
    if (code == GVUSB_ERR_OUT_OF_RANGE && options.value.empty()) {
        throw Failure(what + ": " + libraryText(code), ExitStatus::failure,
                      "The value is missing; see 'gvusb set --help'.");
    }
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
} // namespace set_command

void addSet(CLI::App& app, ExitStatus& status) {
    using namespace set_command;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("set", "Change a parameter of a reader or of the driver");
    addTargetArgument(*command, options->target);
    command->add_option("KEY", options->key, "Parameter name, in upper or lower case")
        ->required()
        ->type_name("");
    command->add_option("VALUE", options->value, "New value; the two resets take none")->type_name("");
    command->footer(joinSections({keys, exitStatusHelp, examples}));
    command->callback([options, &status] { status = set(*options); });
}
