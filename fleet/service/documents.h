// The JSON documents that the service publishes.
#pragma once

#include "fleet/service/machine_readers.h"
#include "fleet/service/served_reader.h"

#include <chrono>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace fleet {

using Json = nlohmann::ordered_json;

// In UTC: "2026-11-23T12:00:00.123Z".
std::string utcText(std::chrono::system_clock::time_point time);

Json readerDocument(const ReaderFacts& facts, bool connected, std::chrono::system_clock::time_point since);

struct Event {
    const char* what = ""; // "connect", "disconnect" or "error"
    std::optional<std::string> reader = {};
    std::optional<int> code = {};
    std::optional<std::string> text = {};
};
Json eventDocument(const Event& event, std::chrono::system_clock::time_point time);

// As text, with bytes that are not UTF-8 replaced: the names of readers may have any.
std::string jsonText(const Json& value);

} // namespace fleet
