#include "command.h"
#include "commands/reader_list.h"
#include "failure.h"
#include "note.h"
#include "usb_location.h"

#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

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

std::string scanned(int index, const char* key) {
    std::array<char, GVUSB_PARAMETER_SIZE> value{};
    const int code = GVUSB_GetScanListPara(index, key, value.data());
    return code == 0 ? value.data() : std::string{};
}

// Reads what only an open reader has, and closes it: a second reader with the same device ID can be opened only
// while this one is closed.
void readAndClose(int handle, ListedReader& reader) {
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

struct Found {
    std::vector<ListedReader> readers; // that match the search
    std::size_t identified = 0;
};

// The library identifies every reader, and the tool compares: a search by the library would not tell how many
// readers were identified.
Found findReaders(const ListOptions& search) {
    Found found;
    // This opens the first reader whether it matches or not.
    int handle = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr);
    const int size = GVUSB_GetScanListSize();
    for (int index = 0; index < size; ++index) {
        ListedReader reader{.machine = {},
                            .reader = {},
                            .id = scanned(index, "DEVICE-ID"),
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

ExitStatus list(const ListOptions& options) {
    const auto& [readers, identified] = findReaders(options);
    noteUnidentified(identified);
    noteReplacedCharacters(options, readers);
    if (options.json || !readers.empty()) {
        printReaders(readers, options.json);
    }
    if (readers.empty()) {
        throw Failure(codeText(GVUSB_ERR_NO_DEVICE_FOUND), ExitStatus::notFound,
                      options.isSearch()
                          ? "Run 'gvusb list' without a search to see all readers."
                          : "Run 'gvusb doctor' to find out why, or 'gvusb-emulate -- gvusb list' to try "
                            "virtual readers.");
    }
    return ExitStatus::ok;
}

} // namespace
} // namespace list_command

void addList(CLI::App& app, ExitStatus& status) {
    using namespace list_command;
    auto options = std::make_shared<ListOptions>();
    CLI::App* command = app.add_subcommand("list", "List the readers on the bus");
    addListOptions(*command, *options);
    command->footer(joinSections({about, exitStatusHelp, examples}));
    command->callback([options, &status] { status = list(*options); });
}
