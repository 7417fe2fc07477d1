// JSON with its members in the order in which they are written, one value to a line.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;

// A reader's texts need not be UTF-8, which JSON is.
inline std::string jsonLine(const Json& value, int indent = -1) {
    return value.dump(indent, ' ', false, Json::error_handler_t::replace) + '\n';
}
