#include "fleet/service/documents.h"

#include <array>
#include <cstdio>
#include <ctime>

namespace fleet {
namespace {

template <class Value>
Json orNull(const std::optional<Value>& value) {
    return value ? Json(*value) : Json(nullptr);
}

} // namespace

std::string utcText(std::chrono::system_clock::time_point time) {
    const auto whole = std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch());
    constexpr int perSecond = 1000;
    const std::time_t seconds = whole.count() / perSecond;
    std::tm parts = {};
    ::gmtime_r(&seconds, &parts);
    std::array<char, 40> text{};
    const std::size_t size = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text.data() + size, text.size() - size, ".%03dZ",
                  static_cast<int>(whole.count() % perSecond));
    return text.data();
}

Json readerDocument(const ReaderFacts& facts, bool connected, std::chrono::system_clock::time_point since) {
    std::array<char, 16> id{};
    std::snprintf(id.data(), id.size(), "%X", facts.id);
    return {{"name", facts.name},
            {"id", id.data()},
            {"family", facts.family},
            {"device", facts.device},
            {"interface", facts.interfaceType},
            {"type", orNull(facts.typeNumber)},
            {"path", facts.path.empty() ? Json(nullptr) : Json(facts.path)},
            {"bus", facts.bus},
            {"address", facts.address},
            {"connected", connected},
            {"since", utcText(since)}};
}

Json eventDocument(const Event& event, std::chrono::system_clock::time_point time) {
    return {{"time", utcText(time)},
            {"event", event.what},
            {"reader", orNull(event.reader)},
            {"code", orNull(event.code)},
            {"text", orNull(event.text)}};
}

std::string jsonText(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace fleet
