#include "command.h"
#include "failure.h"
#include "json.h"
#include "output.h"
#include "reader.h"
#include "table.h"

#include <memory>

#include <gvusb.h>

namespace {

struct Options {
    std::string family;
    std::string name;
    std::string id;
    bool json = false;
};

// A text that fills its field needs no zero at the end.
template <std::size_t size>
void fill(char (&field)[size], const std::string& text) {
    if (text.size() > size)
        throw Failure("'" + text + "' is longer than any name that can be searched for (" +
                          std::to_string(size) + " characters)",
                      ExitStatus::usage);
    text.copy(field, size);
}

GVUSB_SCANSEARCH searchRecord(const Options& options) {
    GVUSB_SCANSEARCH search = {};
    if (!options.family.empty()) {
        search.mask = GVUSB_SEARCH_FAMILY_NAME;
        fill(search.famName, options.family);
    } else if (!options.name.empty()) {
        search.mask = GVUSB_SEARCH_DEVICE_NAME;
        fill(search.devName, options.name);
    } else if (!options.id.empty()) {
        search.mask = GVUSB_SEARCH_DEVICE_ID;
        fill(search.devId, options.id);
    }
    return search;
}

void printTable(const std::vector<ReaderFacts>& readers) {
    Table table;
    table.add({"INDEX", "ID", "FAMILY", "NAME", "INTERFACE", "TYPE"});
    for (std::size_t i = 0; i < readers.size(); ++i) {
        const ReaderFacts& reader = readers[i];
        table.add({std::to_string(i), reader.id, printable(reader.family), printable(reader.name),
                   printable(reader.interfaceType), printable(reader.typeNumber.value_or("-"))});
    }
    output::print(table.text());
}

void printJson(const std::vector<ReaderFacts>& readers) {
    Json list = Json::array();
    for (std::size_t i = 0; i < readers.size(); ++i) {
        const ReaderFacts& reader = readers[i];
        list.push_back({{"index", i},
                        {"id", reader.id},
                        {"family", reader.family},
                        {"name", reader.name},
                        {"interface", reader.interfaceType},
                        {"type", reader.typeNumber ? Json(*reader.typeNumber) : Json(nullptr)}});
    }
    output::print(jsonLine(list, 2));
}

ExitStatus list(const Options& options) {
    GVUSB_SCANSEARCH search = searchRecord(options);
    const std::vector<ReaderFacts> readers = findReaders(search.mask != 0 ? &search : nullptr);
    if (options.json)
        printJson(readers);
    if (readers.empty())
        throw Failure(libraryText(GVUSB_ERR_NO_DEVICE_FOUND), ExitStatus::notFound,
                      search.mask != 0 ? "'gvusb list' without a search shows every reader."
                                       : "'gvusb doctor' finds out why.");
    if (!options.json)
        printTable(readers);
    return ExitStatus::ok;
}

} // namespace

void addList(CLI::App& app, Action& action) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("list", "Show the readers on the bus");
    CLI::Option* family =
        command->add_option("--family", options->family, "Only readers of this family")->type_name("NAME");
    CLI::Option* name =
        command->add_option("--name", options->name, "Only readers with this device name")->type_name("NAME");
    CLI::Option* id = command->add_option("--id", options->id, "Only readers with this device ID")
                          ->type_name("ID")
                          ->check(isDeviceId);
    family->excludes(name)->excludes(id);
    name->excludes(id);
    command->add_flag("--json", options->json, "Write an array of objects instead of a table");
    command->footer(std::string("The readers come in the bus's order. The type number is read from the "
                                "reader, which is opened\n"
                                "for it; '-' (in JSON null) stands where that fails.\n\n") +
                    exitStatusHelp +
                    "\nEXAMPLES\n"
                    "  gvusb list\n"
                    "  gvusb list --family Desk --json | jq -r '.[].id'\n");
    command->callback([options, &action] { action = [options] { return list(*options); }; });
}
