#include "command.h"
#include "failure.h"
#include "json.h"
#include "output.h"
#include "printable_text.h"
#include "reader.h"
#include "table.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>
#include <optional>
#include <span>

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

constexpr std::array readerKeys = {"DEVICE-ID",  "FAMILYNAME", "DEVICENAME", "INTERFACE",
                                   "TYPENUMBER", "DEVICEHND",  "TIMEOUT",    "PRESENT"};
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

private:
    std::optional<Reader> m_reader;
};

void getOne(const Target& target, const Options& options) {
    const std::string value = target.value(options.key);
    if (!options.json) {
        output::print(value + '\n');
        return;
    }
    std::string key = options.key;
    std::ranges::transform(key, key.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    Json object;
    object[key] = value;
    output::print(jsonLine(object, 2));
}

void getAll(const Target& target, bool json) {
    Table table;
    Json object;
    for (const char* const key : target.keys()) {
        std::optional<std::string> value;
        try {
            value = target.value(key);
        } catch (const Failure& failure) {
            if (failure.status() != ExitStatus::failure) {
                throw; // the reader is gone
            }
        }
        table.add({key, printable(value.value_or("-"))});
        object[key] = value ? Json(*value) : Json(nullptr);
    }
    output::print(json ? jsonLine(object, 2) : table.text());
}

ExitStatus get(const Options& options) {
    const Target target(options.target);
    if (options.key.empty()) {
        getAll(target, options.json);
    } else {
        getOne(target, options);
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
