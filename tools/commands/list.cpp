#include "command.h"
#include "failure.h"
#include "json.h"
#include "output.h"
#include "printable_text.h"
#include "table.h"

#include <array>
#include <memory>
#include <optional>

#include <gvusb.h>

namespace list_command {
namespace {

constexpr const char* about = R"(
Readers are listed in the order of the bus. The type number is read from the reader, which is opened for
this; '-' (null in JSON) means that it could not be read.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb list
  gvusb list --family Desk --json | jq -r '.[].id'
)";

struct Options {
    std::string family;
    std::string name;
    std::string id;
    bool json = false;
};

struct ReaderFacts {
    std::string id;
    std::string family;
    std::string name;
    std::string interfaceType;
    std::optional<std::string> typeNumber;
};

// A text that fills its field has no terminating zero.
template <std::size_t size>
void fill(char (&field)[size], const std::string& text) {
    if (text.size() > size) {
        throw Failure("'" + text + "' is too long to search for (more than " + std::to_string(size) +
                          " characters)",
                      ExitStatus::usage);
    }
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

std::string scanned(int index, const char* key) {
    std::array<char, GVUSB_PARAMETER_SIZE> value{};
    const int code = GVUSB_GetScanListPara(index, key, value.data());
    return code == 0 ? value.data() : std::string{};
}

// Reads the type number of an open reader and closes it: a second reader with the same device ID can be
// opened only while this one is closed.
std::optional<std::string> takeTypeNumber(int handle) {
    std::array<char, GVUSB_PARAMETER_SIZE> value{};
    if (handle <= 0) {
        return std::nullopt;
    }
    const int code = GVUSB_GetDevicePara(handle, "TYPENUMBER", value.data());
    GVUSB_CloseDevice(handle);
    return code == 0 ? std::optional<std::string>(value.data()) : std::nullopt;
}

// The readers that match the search record, or all if it is null.
std::vector<ReaderFacts> findReaders(GVUSB_SCANSEARCH* search) {
    std::vector<ReaderFacts> readers;
    const int withSearch = search != nullptr ? GVUSB_SCAN_SEARCH : 0;
    int option = GVUSB_SCAN_FIRST;
    for (int index = 0;; ++index) {
        const int handle = GVUSB_ScanAndOpen(option | withSearch, search);
        if (index >= GVUSB_GetScanListSize()) {
            return readers;
        }
        readers.push_back({.id = scanned(index, "DEVICE-ID"),
                           .family = scanned(index, "FAMILYNAME"),
                           .name = scanned(index, "DEVICENAME"),
                           .interfaceType = scanned(index, "INTERFACE"),
                           .typeNumber = takeTypeNumber(handle)});
        option = GVUSB_SCAN_NEXT;
    }
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
    if (options.json) {
        printJson(readers);
    }
    if (readers.empty()) {
        throw Failure(libraryText(GVUSB_ERR_NO_DEVICE_FOUND), ExitStatus::notFound,
                      search.mask != 0 ? "Run 'gvusb list' without a search to see all readers."
                                       : "Run 'gvusb doctor' to find out why.");
    }
    if (!options.json) {
        printTable(readers);
    }
    return ExitStatus::ok;
}

} // namespace
} // namespace list_command

void addList(CLI::App& app, ExitStatus& status) {
    using namespace list_command;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("list", "List the readers on the bus");
    CLI::Option* family =
        command->add_option("--family", options->family, "Only readers of this family")->type_name("NAME");
    CLI::Option* name =
        command->add_option("--name", options->name, "Only readers with this device name")->type_name("NAME");
    CLI::Option* id = command->add_option("--id", options->id, "Only readers with this device ID")
                          ->type_name("ID")
                          ->check(isDeviceId);
    family->excludes(name)->excludes(id);
    name->excludes(id);
    command->add_flag("--json", options->json, "Print an array of objects instead of a table");
    command->footer(joinSections({about, exitStatusHelp, examples}));
    command->callback([options, &status] { status = list(*options); });
}
