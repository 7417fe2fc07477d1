#include "logic/messages.h"

#include "model/descriptors.h"

#include <algorithm>
#include <array>

#include <nlohmann/json.hpp>

namespace emulator {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::uint64_t longestDelay = 3'600'000;

// Texts of a description may have bytes that are not UTF-8.
std::string lineOf(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

std::string addressText(std::uint8_t address) {
    return numbered("0x%02x", address);
}

const char* typeName(TransferType type) {
    switch (type) {
    case TransferType::control:
        return "control";
    case TransferType::isochronous:
        return "iso";
    case TransferType::bulk:
        return "bulk";
    case TransferType::interrupt:
        break;
    }
    return "interrupt";
}

const char* speedName(Speed speed) {
    return speed == Speed::low ? "low" : speed == Speed::full ? "full" : "high";
}

// ---- from the command

[[noreturn]] void expected(const std::string& what) {
    throw TextError("expected " + what);
}

std::string textAt(const Json& object, const char* key) {
    const Json& value = object.at(key);
    if (!value.is_string()) {
        expected(std::string("a text for \"") + key + "\"");
    }
    return value.get<std::string>();
}

std::uint64_t numberAt(const Json& object, const char* key) {
    const Json& value = object.at(key);
    if (!value.is_number_unsigned() || value.get<std::uint64_t>() > longestDelay) {
        expected(std::string("a number from 0 to ") + std::to_string(longestDelay) + " for \"" + key + "\"");
    }
    return value.get<std::uint64_t>();
}

void expectTrue(const Json& object, const char* key) {
    if (object.at(key) != true) {
        expected(std::string("true for \"") + key + "\"");
    }
}

struct Request {
    const Json& object;
    std::string reader; // its number
};

struct Verb {
    const char* name;
    const char* extra; // a key besides "after_ms", or null
    LogicAction (*parse)(const Request& request);
};

LogicAction command(std::string text) {
    return {.kind = LogicAction::Kind::command, .text = std::move(text)};
}

constexpr std::array verbs = {
    Verb{"send", "pipe",
         [](const Request& r) {
             LogicAction action = {.frame = hexBytes("\"send\"", textAt(r.object, "send"))};
             if (r.object.contains("pipe")) {
                 const std::string pipe = textAt(r.object, "pipe");
                 if (pipe != "bulk" && pipe != "control") {
                     expected("bulk or control for \"pipe\"");
                 }
                 action.byControl = pipe == "control";
             }
             return action;
         }},
    Verb{"stall", nullptr,
         [](const Request& r) {
             return LogicAction{.kind = LogicAction::Kind::stall, .text = textAt(r.object, "stall")};
         }},
    Verb{"mute", nullptr,
         [](const Request& r) { return command("mute " + r.reader + " " + textAt(r.object, "mute")); }},
    Verb{"unmute", nullptr,
         [](const Request& r) { return command("unmute " + r.reader + " " + textAt(r.object, "unmute")); }},
    Verb{"delay", "ms",
         [](const Request& r) {
             if (!r.object.contains("ms")) {
                 expected("\"ms\" with \"delay\"");
             }
             return command("delay " + r.reader + " " + textAt(r.object, "delay") + " " +
                            std::to_string(numberAt(r.object, "ms")));
         }},
    Verb{"reply", nullptr,
         [](const Request& r) { return command("reply " + r.reader + " " + textAt(r.object, "reply")); }},
    Verb{"flush", nullptr,
         [](const Request& r) {
             expectTrue(r.object, "flush");
             return command("flush " + r.reader);
         }},
    Verb{"plug", nullptr,
         [](const Request& r) {
             expectTrue(r.object, "plug");
             return LogicAction{.kind = LogicAction::Kind::plug};
         }},
    Verb{"unplug", nullptr,
         [](const Request& r) {
             expectTrue(r.object, "unplug");
             return LogicAction{.kind = LogicAction::Kind::unplug};
         }},
    Verb{"command", nullptr, [](const Request& r) { return command(textAt(r.object, "command")); }},
    Verb{"log", nullptr,
         [](const Request& r) {
             return LogicAction{.kind = LogicAction::Kind::log, .text = textAt(r.object, "log")};
         }},
};

std::string verbNames() {
    std::string names;
    for (const Verb& verb : verbs) {
        names += (names.empty() ? "" : ", ") + std::string(verb.name);
    }
    return names;
}

} // namespace

std::string helloLine(const ReaderDescription& reader, std::size_t number) {
    Json hello = {{"hello", logicVersion}, {"reader", number}, {"copy", reader.copy}};
    constexpr std::array<std::pair<const char*, std::uint8_t>, 5> texts = {
        {{"id", deviceIdString},
         {"family", familyNameString},
         {"name", deviceNameString},
         {"interface", interfaceTypeString},
         {"type", typeNumberString}}};
    for (const auto& [key, index] : texts) {
        const auto found = reader.strings.find(index);
        hello[key] = found == reader.strings.end() ? Json() : Json(found->second);
    }
    hello["vendor"] = reader.vendor;
    hello["product"] = reader.product;
    hello["release"] = reader.release;
    hello["speed"] = speedName(reader.speed);
    hello["endpoints"] = Json::array();
    for (const Endpoint& endpoint : reader.endpoints) {
        hello["endpoints"].push_back({{"address", addressText(endpoint.address)},
                                      {"type", typeName(endpoint.type)},
                                      {"packet", packetSize(reader, endpoint)}});
    }
    return lineOf(hello);
}

// Without the JSON library, because it is on the way of every frame.
std::string frameLine(std::uint64_t number, std::uint8_t endpoint, const Bytes& frame) {
    std::string line = R"({"frame":")";
    line += hexText(frame);
    line += R"(","number":)";
    line += std::to_string(number);
    line += endpoint == 0 ? R"(,"pipe":"control")" : R"(,"pipe":"bulk")";
    line += R"(,"endpoint":")";
    line += addressText(endpoint);
    line += "\"}\n";
    return line;
}

std::string eventLine(ReaderEvent event, std::uint8_t value) {
    switch (event) {
    case ReaderEvent::plugged:
        return "{\"event\":\"plugged\"}\n";
    case ReaderEvent::unplugged:
        return "{\"event\":\"unplugged\"}\n";
    case ReaderEvent::opened:
        return "{\"event\":\"opened\"}\n";
    case ReaderEvent::closed:
        return "{\"event\":\"closed\"}\n";
    case ReaderEvent::claimed:
        return lineOf({{"event", "claimed"}, {"interface", value}});
    case ReaderEvent::released:
        return lineOf({{"event", "released"}, {"interface", value}});
    case ReaderEvent::reset:
        return "{\"event\":\"reset\"}\n";
    case ReaderEvent::configured:
        return lineOf({{"event", "configured"}, {"configuration", value}});
    case ReaderEvent::haltCleared:
        break;
    }
    return lineOf({{"event", "halt-cleared"}, {"endpoint", addressText(value)}});
}

std::string lostEventsLine(std::uint64_t count) {
    return lineOf({{"event", "lost"}, {"count", count}});
}

LogicAction parseLogicLine(std::string_view line, std::size_t number) {
    const Json object = Json::parse(line, nullptr, false);
    if (!object.is_object()) {
        throw TextError("not a JSON object");
    }
    const auto verb =
        std::ranges::find_if(verbs, [&](const Verb& each) { return object.contains(each.name); });
    for (const auto& [key, value] : object.items()) {
        if (key != "after_ms" &&
            (verb == verbs.end() || (key != verb->name && (verb->extra == nullptr || key != verb->extra)))) {
            throw TextError(
                "unknown key \"" + key + "\"" +
                (verb == verbs.end() ? std::string() : std::string(" with \"") + verb->name + "\""));
        }
    }
    if (verb == verbs.end()) {
        expected("one of the keys " + verbNames());
    }
    LogicAction action = verb->parse({.object = object, .reader = std::to_string(number)});
    if (object.contains("after_ms")) {
        action.after = Milliseconds(numberAt(object, "after_ms"));
    }
    return action;
}

} // namespace emulator
