#include "commands/parameters.h"

#include "output.h"
#include "printable_text.h"
#include "table.h"

#include <algorithm>
#include <cctype>

std::string inUpperCase(std::string key) {
    std::ranges::transform(key, key.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return key;
}

void printParameter(const std::string& key, const std::string& value, bool json, Json object) {
    if (!json) {
        output::print(value + '\n');
        return;
    }
    object[inUpperCase(key)] = value;
    output::print(jsonLine(object, 2));
}

void printParameters(std::span<const char* const> keys,
                     const std::function<std::optional<std::string>(const std::string& key)>& value,
                     bool json, Json object) {
    Table table;
    for (const char* const key : keys) {
        const std::optional<std::string> text = value(key);
        table.add({key, printable(text.value_or("-"))});
        object[key] = text ? Json(*text) : Json(nullptr);
    }
    output::print(json ? jsonLine(object, 2) : table.text());
}
