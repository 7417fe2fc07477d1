#include "command.h"
#include "failure.h"
#include "hexadecimal.h"
#include "json.h"
#include "location_texts.h"
#include "note.h"
#include "output.h"
#include "printable_text.h"
#include "table.h"
#include "usb_location.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>

#include <gvusb.h>

namespace list_command {
namespace {

constexpr const char* about = R"(
Readers are listed in the order of the bus. The type number is read from the reader, which is opened for
this; '-' (null in JSON) means that it could not be read. The same applies to the USB path, bus and address.
A reader that may not be opened, or that lacks a text, is not listed; a line on standard error says how many.

The texts of readers are read as ASCII: '?' stands for every other character. --family and --name find a text
as it is shown and as the reader has it.
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
    std::optional<UsbLocation> location;
};

std::string scanned(int index, const char* key) {
    std::array<char, GVUSB_PARAMETER_SIZE> value{};
    const int code = GVUSB_GetScanListPara(index, key, value.data());
    return code == 0 ? value.data() : std::string{};
}

// Reads what only an open reader has, and closes it: a second reader with the same device ID can be opened only
// while this one is closed.
void readAndClose(int handle, ReaderFacts& reader) {
    std::array<char, GVUSB_PARAMETER_SIZE> value{};
    if (handle <= 0) {
        return;
    }
    if (GVUSB_GetDevicePara(handle, "TYPENUMBER", value.data()) == GVUSB_OK) {
        reader.typeNumber = value.data();
    }
    reader.location = locationOfOpenReader();
    GVUSB_CloseDevice(handle);
}

// Also finds a text as it is printed, in which some characters have become question marks.
bool isText(const std::string& text, const std::string& wanted) {
    return wanted.empty() || text == wanted || printable(text) == asPrinted(wanted);
}

bool matches(const ReaderFacts& reader, const Options& search) {
    return isText(reader.family, search.family) && isText(reader.name, search.name) &&
           (search.id.empty() || parseDeviceId(reader.id) == parseDeviceId(search.id));
}

struct Found {
    std::vector<ReaderFacts> readers; // that match the search
    std::size_t identified = 0;
};

// The library identifies every reader, and the tool compares: a search by the library would not tell how many
// readers were identified.
Found findReaders(const Options& search) {
    Found found;
    // This opens the first reader whether it matches or not.
    int handle = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr);
    const int size = GVUSB_GetScanListSize();
    for (int index = 0; index < size; ++index) {
        ReaderFacts reader{.id = scanned(index, "DEVICE-ID"),
                           .family = scanned(index, "FAMILYNAME"),
                           .name = scanned(index, "DEVICENAME"),
                           .interfaceType = scanned(index, "INTERFACE"),
                           .typeNumber = {},
                           .location = {}};
        const bool isWanted = matches(reader, search);
        if (index != 0) {
            handle =
                isWanted ? GVUSB_ScanAndOpen(GVUSB_SCAN_NEXT, nullptr) : GVUSB_Scan(GVUSB_SCAN_NEXT, nullptr);
        }
        if (isWanted || index == 0) {
            readAndClose(handle, reader);
        }
        if (isWanted) {
            found.readers.push_back(std::move(reader));
        }
        ++found.identified;
    }
    return found;
}

void noteUnidentified(std::size_t identified) {
    const std::size_t present = readersOnBus().size();
    if (present > identified) {
        const std::size_t count = present - identified;
        printNote(std::to_string(count) + (count == 1 ? " reader" : " readers") +
                  " on the bus could not be identified; run 'gvusb doctor' to find out why.");
    }
}

void noteReplacedCharacters(const Options& search, const std::vector<ReaderFacts>& readers) {
    for (const std::string& text : {search.family, search.name}) {
        if (asPrinted(text) != text) {
            printNote("characters outside ASCII are read as '?', so this searches for '" + asPrinted(text) +
                      "'.");
        }
    }
    const auto isReplaced = [](const ReaderFacts& reader) {
        return (printable(reader.family) + printable(reader.name)).find('?') != std::string::npos;
    };
    if (std::ranges::any_of(readers, isReplaced)) {
        printNote(questionMarkNote);
    }
}

void printTable(const std::vector<ReaderFacts>& readers) {
    Table table;
    table.add({"INDEX", "ID", "FAMILY", "NAME", "INTERFACE", "TYPE", "PATH", "BUS", "ADDRESS"});
    for (std::size_t i = 0; i < readers.size(); ++i) {
        const ReaderFacts& reader = readers[i];
        const LocationTexts location(reader.location);
        table.add({std::to_string(i), reader.id, printable(reader.family), printable(reader.name),
                   printable(reader.interfaceType), printable(reader.typeNumber.value_or("-")), location.path,
                   location.bus, location.address});
    }
    output::print(table.text());
}

void printJson(const std::vector<ReaderFacts>& readers) {
    Json list = Json::array();
    for (std::size_t i = 0; i < readers.size(); ++i) {
        const ReaderFacts& reader = readers[i];
        Json object = {{"index", i},
                       {"id", reader.id},
                       {"family", reader.family},
                       {"name", reader.name},
                       {"interface", reader.interfaceType},
                       {"type", reader.typeNumber ? Json(*reader.typeNumber) : Json(nullptr)}};
        addLocation(object, reader.location);
        list.push_back(std::move(object));
    }
    output::print(jsonLine(list, 2));
}

ExitStatus list(const Options& options) {
    const auto& [readers, identified] = findReaders(options);
    noteUnidentified(identified);
    noteReplacedCharacters(options, readers);
    if (options.json) {
        printJson(readers);
    }
    if (readers.empty()) {
        const bool isSearch = !options.family.empty() || !options.name.empty() || !options.id.empty();
        throw Failure(codeText(GVUSB_ERR_NO_DEVICE_FOUND), ExitStatus::notFound,
                      isSearch
                          ? "Run 'gvusb list' without a search to see all readers."
                          : "Run 'gvusb doctor' to find out why, or 'gvusb-emulate -- gvusb list' to try "
                            "virtual readers.");
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
