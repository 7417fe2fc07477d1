#include "fleet/target.h"

#include "fleet/topics.h"
#include "hexadecimal.h"
#include "usb_path.h"

namespace fleet_target {
namespace {

// The bus and ports in "1A2B3C@1-2.3" are those of a USB path.
bool isPlace(const std::string& text) {
    return isUsbPath("usb:" + text);
}

const CLI::Validator isTarget(
    [](std::string& text) {
        return parseFleetTarget(text)
                   ? std::string{}
                   : "'" + text + "' is not a machine and a device ID, such as gate-7/1A2B3C";
    },
    "");

} // namespace
} // namespace fleet_target

const CLI::Validator isMachine(
    [](std::string& text) {
        return fleet::isMachineName(text) ? std::string{} : "'" + text + "' is not the name of a machine";
    },
    "");

std::optional<FleetTarget> parseFleetTarget(const std::string& text) {
    const std::size_t slash = text.find('/');
    if (slash == std::string::npos || !fleet::isMachineName(text.substr(0, slash))) {
        return std::nullopt;
    }
    const std::string reader = text.substr(slash + 1);
    const std::size_t at = reader.find('@');
    const std::optional<unsigned int> id = parseDeviceId(reader.substr(0, at));
    const std::string place = at == std::string::npos ? std::string{} : reader.substr(at);
    if (!id || (!place.empty() && !fleet_target::isPlace(place.substr(1)))) {
        return std::nullopt;
    }
    return FleetTarget{.machine = text.substr(0, slash), .reader = deviceIdText(*id) + place};
}

void addFleetReaderArgument(CLI::App& command, std::string& text) {
    command
        .add_option("MACHINE/ID", text, "Machine and device ID, as shown by 'gvusb --broker ADDRESS list'")
        ->required()
        ->type_name("")
        ->check(fleet_target::isTarget);
}
