#include "command.h"
#include "commands/parameters.h"
#include "failure.h"
#include "reader.h"

#include <array>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace get_command {
namespace {

constexpr const char* keys = R"(
KEYS
  of a reader    TIMEOUT (milliseconds), DEVICEHND, DEVICE-ID, DEVICENAME, FAMILYNAME, INTERFACE,
                 TYPENUMBER, PRESENT (1 or 0)
  of the driver  HOTPLUG-MODE (0 off, 1 polling, 2 libusb's callbacks), PARALLEL (1 or 0)

Without KEY, all of them are printed, with '-' (null in JSON) for what the reader does not have. In JSON, the
members are the keys, in upper case, and all values are texts.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb get 1A2B3C DEVICENAME
  gvusb get 1A2B3C
  gvusb get driver HOTPLUG-MODE
)";

struct Options {
    std::string target;
    std::string key;
    bool json = false;
};

constexpr std::array driverKeys = {"HOTPLUG-MODE"};

// The driver, or a reader that is open while this exists.
class Target {
public:
    explicit Target(const std::string& name) {
        if (name != "driver") {
            m_reader.emplace(name);
        }
    }

    std::span<const char* const> keys() const {
        return m_reader ? std::span<const char* const>(readerKeys) : std::span<const char* const>(driverKeys);
    }

    std::string value(const std::string& key) const {
        return m_reader ? m_reader->parameter(key) : readParameter("driver", GVUSB_DRIVER, key);
    }

    // Nothing if it cannot be read. Throws if the reader is gone.
    std::optional<std::string> valueIfAny(const std::string& key) const {
        try {
            return value(key);
        } catch (const Failure& failure) {
            if (failure.status() != ExitStatus::failure) {
                throw;
            }
            return std::nullopt;
        }
    }

private:
    std::optional<Reader> m_reader;
};

ExitStatus get(const Options& options) {
    const Target target(options.target);
    if (options.key.empty()) {
        printParameters(
            target.keys(), [&target](const std::string& key) { return target.valueIfAny(key); },
            options.json);
    } else {
        printParameter(options.key, target.value(options.key), options.json);
    }
    return ExitStatus::ok;
}

} // namespace
} // namespace get_command

void addGet(CLI::App& app, ExitStatus& status) {
    using namespace get_command;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("get", "Print parameters of a reader or of the driver");
    addTargetArgument(*command, options->target);
    command->add_option("KEY", options->key, "Parameter name, in upper or lower case; without it, print all")
        ->type_name("");
    command->add_flag("--json", options->json, "Print an object with the parameters");
    command->footer(joinSections({keys, exitStatusHelp, examples}));
    command->callback([options, &status] { status = get(*options); });
}
