#include "command.h"
#include "json.h"
#include "location_texts.h"
#include "note.h"
#include "output.h"
#include "printable_text.h"
#include "reader.h"
#include "table.h"

#include <array>
#include <memory>

namespace info_command {
namespace {

constexpr const char* examples = R"(
EXAMPLES
  gvusb info 1A2B3C
  gvusb info usb:1-2.3
)";

struct Options {
    std::string id;
    bool json = false;
};

struct Fact {
    const char* label;
    const char* member;
    const char* key;
};

constexpr std::array facts = {
    Fact{"Device ID", "id", "DEVICE-ID"},        Fact{"Family", "family", "FAMILYNAME"},
    Fact{"Name", "name", "DEVICENAME"},          Fact{"Interface", "interface", "INTERFACE"},
    Fact{"Type number", "type", "TYPENUMBER"},   Fact{"Device handle", "handle", "DEVICEHND"},
    Fact{"Time-out in ms", "timeout", "TIMEOUT"}};

// "-" for a text that the reader does not have; the others are still shown.
std::string value(const Reader& reader, const char* key) {
    std::array<char, GVUSB_PARAMETER_SIZE> text{};
    const int code = GVUSB_GetDevicePara(reader.handle(), key, text.data());
    return code == 0 ? text.data() : std::string("-");
}

ExitStatus info(const Options& options) {
    const Reader reader(options.id);
    bool isReplaced = false;
    Table table;
    Json object = Json::object();
    for (const Fact& fact : facts) {
        const std::string text = value(reader, fact.key);
        table.add({fact.label, printable(text)});
        isReplaced = isReplaced || printable(text).find('?') != std::string::npos;
        const bool isNumber =
            std::string_view(fact.key) == "DEVICEHND" || std::string_view(fact.key) == "TIMEOUT";
        object[fact.member] = isNumber ? Json(std::stoul(text)) : text == "-" ? Json(nullptr) : Json(text);
    }
    const auto location = locationOfOpenReader();
    const LocationTexts texts(location);
    table.add({"USB path", texts.path});
    table.add({"USB bus", texts.bus});
    table.add({"USB address", texts.address});
    addLocation(object, location);
    output::print(options.json ? jsonLine(object, 2) : table.text());
    if (isReplaced) {
        printNote(questionMarkNote);
    }
    return ExitStatus::ok;
}

} // namespace
} // namespace info_command

void addInfo(CLI::App& app, ExitStatus& status) {
    using namespace info_command;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("info", "Show everything that one reader reports about itself");
    addReaderArgument(*command, options->id);
    command->add_flag("--json", options->json, "Print an object instead of a table");
    command->footer(joinSections({exitStatusHelp, examples}));
    command->callback([options, &status] { status = info(*options); });
}
