// JSON whose members keep the order in which they are added.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;

// A value as text that ends with a line break. Bytes of a reader's text that are not UTF-8 are replaced.
inline std::string jsonLine(const Json& value, int indent = -1) {
    return value.dump(indent, ' ', false, Json::error_handler_t::replace) + '\n';
}
