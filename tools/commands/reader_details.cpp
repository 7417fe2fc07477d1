#include "commands/reader_details.h"

#include "location_texts.h"
#include "note.h"
#include "output.h"
#include "printable_text.h"

#include <array>
#include <charconv>
#include <system_error>

namespace {

struct Fact {
    const char* label;
    const char* member;
    const char* key;
    bool isNumber = false;
};

constexpr std::array facts = {Fact{"Device ID", "id", "DEVICE-ID"},
                              Fact{"Family", "family", "FAMILYNAME"},
                              Fact{"Name", "name", "DEVICENAME"},
                              Fact{"Interface", "interface", "INTERFACE"},
                              Fact{"Type number", "type", "TYPENUMBER"},
                              Fact{"Device handle", "handle", "DEVICEHND", true},
                              Fact{"Time-out in ms", "timeout", "TIMEOUT", true}};

Json numberIn(const std::string& text) {
    unsigned long number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc{} && stop == end ? Json(number) : Json(nullptr);
}

} // namespace

ReaderDetails::ReaderDetails(const std::function<std::optional<std::string>(const char* key)>& value) {
    for (const Fact& fact : facts) {
        const std::optional<std::string> text = value(fact.key);
        const std::string shown = printable(text.value_or("-"));
        m_rows.push_back({fact.label, shown});
        m_isReplaced = m_isReplaced || shown.find('?') != std::string::npos;
        m_object[fact.member] = !text ? Json(nullptr) : fact.isNumber ? numberIn(*text) : Json(*text);
    }
}

void ReaderDetails::addMachine(const std::string& name) {
    m_rows.insert(m_rows.begin(), {"Machine", name});
    Json object = {{"machine", name}};
    object.update(m_object);
    m_object = std::move(object);
}

void ReaderDetails::addLocation(const std::optional<UsbLocation>& location) {
    const LocationTexts texts(location);
    m_rows.push_back({"USB path", texts.path});
    m_rows.push_back({"USB bus", texts.bus});
    m_rows.push_back({"USB address", texts.address});
    ::addLocation(m_object, location);
}

void ReaderDetails::print(bool json) const {
    Table table;
    for (const Table::Row& row : m_rows) {
        table.add(row);
    }
    output::print(json ? jsonLine(m_object, 2) : table.text());
    if (m_isReplaced) {
        printNote(questionMarkNote);
    }
}
