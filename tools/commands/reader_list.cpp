#include "commands/reader_list.h"

#include "command_line.h"
#include "hexadecimal.h"
#include "json.h"
#include "location_texts.h"
#include "note.h"
#include "output.h"
#include "printable_text.h"
#include "table.h"

#include <algorithm>
#include <utility>

namespace reader_list {
namespace {

bool isText(const std::string& text, const std::string& wanted) {
    return wanted.empty() || text == wanted || printable(text) == asPrinted(wanted);
}

bool hasMachines(const std::vector<ListedReader>& readers) {
    return !readers.empty() && !readers.front().machine.empty();
}

void printTable(const std::vector<ListedReader>& readers) {
    const bool withMachine = hasMachines(readers);
    Table table;
    const auto add = [&table, withMachine](const std::string& machine, Table::Row row) {
        if (withMachine) {
            row.insert(row.begin(), machine);
        }
        table.add(std::move(row));
    };
    add("MACHINE", {"INDEX", "ID", "FAMILY", "NAME", "INTERFACE", "TYPE", "PATH", "BUS", "ADDRESS"});
    for (std::size_t i = 0; i < readers.size(); ++i) {
        const ListedReader& reader = readers[i];
        const LocationTexts location(reader.location);
        add(reader.machine,
            {std::to_string(i), printable(withMachine ? reader.reader : reader.id), printable(reader.family),
             printable(reader.name), printable(reader.interfaceType),
             printable(reader.typeNumber.value_or("-")), location.path, location.bus, location.address});
    }
    output::print(table.text());
}

void printJson(const std::vector<ListedReader>& readers) {
    Json list = Json::array();
    for (std::size_t i = 0; i < readers.size(); ++i) {
        const ListedReader& reader = readers[i];
        Json object = Json::object();
        if (!reader.machine.empty()) {
            object["machine"] = reader.machine;
            object["reader"] = reader.reader;
        }
        object.update({{"index", i},
                       {"id", reader.id},
                       {"family", reader.family},
                       {"name", reader.name},
                       {"interface", reader.interfaceType},
                       {"type", reader.typeNumber ? Json(*reader.typeNumber) : Json(nullptr)}});
        addLocation(object, reader.location);
        list.push_back(std::move(object));
    }
    output::print(jsonLine(list, 2));
}

} // namespace
} // namespace reader_list

void addListOptions(CLI::App& command, ListOptions& options) {
    CLI::Option* family =
        command.add_option("--family", options.family, "Only readers of this family")->type_name("NAME");
    CLI::Option* name =
        command.add_option("--name", options.name, "Only readers with this device name")->type_name("NAME");
    CLI::Option* id = command.add_option("--id", options.id, "Only readers with this device ID")
                          ->type_name("ID")
                          ->check(isDeviceId);
    family->excludes(name)->excludes(id);
    name->excludes(id);
    command.add_flag("--json", options.json, "Print an array of objects instead of a table");
}

bool matches(const ListedReader& reader, const ListOptions& search) {
    return reader_list::isText(reader.family, search.family) &&
           reader_list::isText(reader.name, search.name) &&
           (search.id.empty() || parseDeviceId(reader.id) == parseDeviceId(search.id));
}

void noteReplacedCharacters(const ListOptions& search, const std::vector<ListedReader>& readers) {
    for (const std::string& text : {search.family, search.name}) {
        if (asPrinted(text) != text) {
            printNote("characters outside ASCII are read as '?', so this searches for '" + asPrinted(text) +
                      "'.");
        }
    }
    const auto isReplaced = [](const ListedReader& reader) {
        return (printable(reader.family) + printable(reader.name)).find('?') != std::string::npos;
    };
    if (std::ranges::any_of(readers, isReplaced)) {
        printNote(questionMarkNote);
    }
}

void printReaders(const std::vector<ListedReader>& readers, bool json) {
    if (json) {
        reader_list::printJson(readers);
    } else {
        reader_list::printTable(readers);
    }
}
