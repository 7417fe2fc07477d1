#include "command.h"
#include "commands/reader_details.h"
#include "reader.h"
#include "usb_location.h"

#include <array>
#include <memory>
#include <optional>
#include <string>

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

ExitStatus info(const Options& options) {
    const Reader reader(options.id);
    ReaderDetails details([&reader](const char* key) {
        std::array<char, GVUSB_PARAMETER_SIZE> text{};
        const int code = GVUSB_GetDevicePara(reader.handle(), key, text.data());
        return code == GVUSB_OK ? std::optional<std::string>(text.data()) : std::nullopt;
    });
    details.addLocation(locationOfOpenReader());
    details.print(options.json);
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
