#include "commands/reader_list.h"
#include "failure.h"
#include "fleet/command.h"
#include "fleet/directory.h"
#include "fleet/target.h"
#include "note.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <gvusb.h>

namespace fleet_list {
namespace {

constexpr const char* about = R"(
Readers are listed in the order of machines and IDs. ID is the name by which the other commands take a reader.
Readers that are disconnected, and those of machines that are offline, are not listed; lines on standard
error count them. '-' (null in JSON) stands for what the machine could not find out.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb --broker mqtt://localhost list
  gvusb --broker mqtt://localhost list --machine gate-7 --json | jq -r '.[].reader'
)";

struct Options {
    ListOptions list;
    std::string machine;
};

struct Found {
    std::vector<ListedReader> readers;
    std::size_t disconnected = 0;
    std::size_t offline = 0;  // readers
    std::size_t machines = 0; // that are offline
};

Found findReaders(const Directory& directory, const ListOptions& search) {
    Found found;
    for (const auto& [name, machine] : directory.machines()) {
        for (const auto& [id, reader] : machine.readers) {
            if (!matches(reader.facts, search)) {
                continue;
            }
            if (!reader.isConnected) {
                ++found.disconnected;
            } else if (machine.isOnline) {
                found.readers.push_back(reader.facts);
            } else {
                ++found.offline;
            }
        }
        found.machines += machine.isOnline ? 0 : 1;
    }
    return found;
}

std::string counted(std::size_t count, const std::string& what) {
    return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

void noteOthers(const Found& found) {
    if (found.machines != 0) {
        printNote(counted(found.machines, "machine") + (found.machines == 1 ? " is" : " are") + " offline" +
                  (found.offline == 0 ? "" : "; not listed: " + counted(found.offline, "reader")));
    }
    if (found.disconnected != 0) {
        printNote("not listed because disconnected: " + counted(found.disconnected, "reader"));
    }
}

ExitStatus list(const Options& options, const FleetOptions& fleet) {
    Connection connection(fleet);
    const Found found = findReaders(readDirectory(connection, fleet.prefix, options.machine), options.list);
    noteOthers(found);
    noteReplacedCharacters(options.list, found.readers);
    if (options.list.json || !found.readers.empty()) {
        printReaders(found.readers, options.list.json);
    }
    if (found.readers.empty()) {
        const bool isSearch = options.list.isSearch() || !options.machine.empty();
        throw Failure(codeText(GVUSB_ERR_NO_DEVICE_FOUND), ExitStatus::notFound,
                      isSearch ? "Run 'list' without a search to see all readers."
                               : "Does gvusb-mqtt run on the machines, with this broker and --prefix?");
    }
    return ExitStatus::ok;
}

} // namespace
} // namespace fleet_list

void addFleetList(CLI::App& app, const FleetOptions& fleet, ExitStatus& status) {
    using namespace fleet_list;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("list", "List the readers of all machines");
    command->add_option("--machine", options->machine, "Only readers of this machine")
        ->type_name("NAME")
        ->check(isMachine);
    addListOptions(*command, options->list);
    command->footer(joinSections({about, exitStatusHelp, examples}));
    command->callback([options, &fleet, &status] { status = list(*options, fleet); });
}
