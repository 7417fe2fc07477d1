#include "command.h"
#include "failure.h"
#include "json.h"
#include "note.h"
#include "output.h"
#include "reader.h"
#include "usb_location.h"

#include <array>
#include <memory>

#include <strings.h>

namespace set_command {
namespace {

constexpr const char* keys = R"(
KEYS
  of a reader    RESETDEVICE resets the reader; RESETPIPE clears a halt of its bulk endpoints and drops an
                 answer that waits in the reader; TIMEOUT (milliseconds, at least 1)
  of the driver  HOTPLUG-UPDATERATE (microseconds, at least 10); HOTPLUG-SUSPEND, PARALLEL (1 or 0)

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
    bool json = false;
};

bool isReset(const Options& options) {
    return ::strcasecmp(options.key.c_str(), "RESETDEVICE") == 0 ||
           ::strcasecmp(options.key.c_str(), "RESETPIPE") == 0;
}

void setParameter(const std::string& title, int handle, const Options& options) {
    const std::string what = title + ": " + options.key;
    const int code = GVUSB_SetDevicePara(handle, options.key.c_str(), options.value.c_str());
    if (code == GVUSB_ERR_OUT_OF_RANGE && options.value.empty()) {
        throw Failure(what + ": " + codeText(code), ExitStatus::failure,
                      "The value is missing; see 'gvusb set --help'.");
    }
    check(what, code);
}

// The library finds the endpoints and claims the interface in the first transfer after opening. Before that,
// RESETPIPE succeeds without clearing anything.
void findEndpoints(const Reader& reader) {
    const auto location = locationOfOpenReader();
    if (location && !location->hasBulkEndpoints) {
        throw Failure(
            reader.title() + ": it has no bulk endpoints whose halt could be cleared", ExitStatus::failure,
            "To reset the reader, use 'gvusb set " + reader.parameter("DEVICE-ID") + " RESETDEVICE'.");
    }
    check(reader.title(), GVUSB_SetDevicePara(reader.handle(), "TIMEOUT", "1"));
    std::array<unsigned char, 512> answer{};
    const int code = GVUSB_Receive(reader.handle(), GVUSB_PROTOCOL, answer.data(),
                                   static_cast<unsigned int>(answer.size()));
    if (code != GVUSB_ERR_TIMEOUT && code != GVUSB_ERR_BULK_TRANSFER) {
        check(reader.title(), code);
    }
}

// Every setting but the resets ends with this process.
void noteWhatIsLost(const Options& options) {
    const std::string accepted =
        options.key + " accepts this value, but the setting ends with this command. ";
    if (options.target == "driver") {
        printNote(accepted + "Put it into /etc/gavo/gvusb.conf, or set it in the program that needs it.");
    } else if (::strcasecmp(options.key.c_str(), "TIMEOUT") == 0) {
        printNote(accepted + "To send with another time-out, use 'gvusb send " + options.target +
                  " --timeout " + options.value + "'.");
    } else if (::strcasecmp(options.key.c_str(), "CANCEL") == 0) {
        printNote("CANCEL ends calls of the same process, and this command makes no other. Set it in the "
                  "program whose calls should end.");
    }
}

ExitStatus set(const Options& options) {
    if (options.target == "driver") {
        setParameter("driver", GVUSB_DRIVER, options);
    } else {
        const Reader reader(options.target);
        if (::strcasecmp(options.key.c_str(), "RESETPIPE") == 0) {
            findEndpoints(reader);
        }
        setParameter(reader.title(), reader.handle(), options);
    }
    noteWhatIsLost(options);
    if (options.json) {
        output::print(jsonLine({{"target", options.target},
                                {"key", options.key},
                                {"value", options.value.empty() ? Json(nullptr) : Json(options.value)},
                                {"lasting", isReset(options)}},
                               2));
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
    command->add_flag("--json", options->json, "Print an object that says what was set and whether it lasts");
    command->footer(joinSections({keys, exitStatusHelp, examples}));
    command->callback([options, &status] { status = set(*options); });
}
