#include "fleet/directory.h"

#include "failure.h"
#include "json.h"
#include "printable_text.h"

#include <cstdint>
#include <limits>
#include <utility>

#include <mqtt_protocol.h>

namespace {

std::string textOf(const Json& object, const char* member) {
    const auto found = object.find(member);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string{};
}

std::optional<unsigned int> numberOf(const Json& object, const char* member) {
    const auto found = object.find(member);
    if (found == object.end() || !found->is_number_unsigned() ||
        found->get<std::uint64_t>() > std::numeric_limits<unsigned int>::max()) {
        return std::nullopt;
    }
    return found->get<unsigned int>();
}

std::optional<UsbLocation> locationOf(const Json& object) {
    const auto bus = numberOf(object, "bus");
    const auto address = numberOf(object, "address");
    if (!bus || !address) {
        return std::nullopt;
    }
    return UsbLocation{.bus = *bus,
                       .address = *address,
                       .path = printable(textOf(object, "path")),
                       .hasBulkEndpoints = false};
}

std::optional<Directory::Reader> parseDocument(const fleet::Topic& topic, std::string_view payload) {
    const Json object = Json::parse(payload, nullptr, false);
    if (!object.is_object()) {
        return std::nullopt;
    }
    const auto connected = object.find("connected");
    if (connected == object.end() || !connected->is_boolean()) {
        return std::nullopt;
    }
    Directory::Reader reader;
    reader.facts = {.machine = std::string(topic.machine),
                    .reader = std::string(topic.reader),
                    .id = textOf(object, "id"),
                    .family = textOf(object, "family"),
                    .name = textOf(object, "device"),
                    .interfaceType = textOf(object, "interface"),
                    .typeNumber = {},
                    .location = locationOf(object)};
    if (const auto type = object.find("type"); type != object.end() && type->is_string()) {
        reader.facts.typeNumber = type->get<std::string>();
    }
    reader.isConnected = connected->get<bool>();
    reader.since = textOf(object, "since");
    return reader;
}

std::string anyIfEmpty(const std::string& machine) {
    return machine.empty() ? "+" : machine;
}

} // namespace

std::string statusFilter(const std::string& prefix, const std::string& machine) {
    return fleet::statusTopic(prefix, anyIfEmpty(machine));
}

std::string readersFilter(const std::string& prefix, const std::string& machine) {
    return fleet::readerTopic(prefix, anyIfEmpty(machine), "+");
}

std::string eventsFilter(const std::string& prefix, const std::string& machine) {
    return fleet::eventsTopic(prefix, anyIfEmpty(machine));
}

bool Directory::add(const std::string& prefix, std::string_view topic, std::string_view payload) {
    const std::optional<fleet::Topic> parsed = fleet::parseTopic(prefix, topic);
    if (!parsed || !fleet::isMachineName(parsed->machine)) {
        return false;
    }
    const std::string machine(parsed->machine);
    if (parsed->kind == fleet::Topic::Kind::status) {
        m_machines[machine].isOnline = payload == fleet::online;
        return true;
    }
    if (parsed->kind != fleet::Topic::Kind::reader) {
        return false;
    }
    if (payload.empty()) {
        m_machines[machine].readers.erase(std::string(parsed->reader));
        return true;
    }
    std::optional<Reader> reader = parseDocument(*parsed, payload);
    if (!reader) {
        return false;
    }
    m_machines[machine].readers[std::string(parsed->reader)] = std::move(*reader);
    return true;
}

const Directory::Reader* Directory::find(const std::string& machine, const std::string& reader) const {
    const auto found = m_machines.find(machine);
    if (found == m_machines.end()) {
        return nullptr;
    }
    const auto entry = found->second.readers.find(reader);
    return entry == found->second.readers.end() ? nullptr : &entry->second;
}

Directory readDirectory(Connection& connection, const std::string& prefix, const std::string& machine,
                        std::vector<Connection::Received>* others) {
    // A broker limits how many messages of QoS 1 wait for a client, and drops the others in silence. This limit does not
    // count messages of QoS 0.
    connection.subscribe({{connection.answerFilter(), 1},
                          {statusFilter(prefix, machine), 0},
                          {readersFilter(prefix, machine), 0}});
    // The broker delivers in order, so all documents have come before this message. It is an answer of the own user, which
    // every user may publish who may publish answers. If it is forbidden, the acknowledgement takes its place.
    const std::string marker = connection.markerTopic();
    const int number = connection.publish(marker, {}, {});
    Directory directory;
    bool isComplete = false;
    constexpr std::chrono::seconds longest(30);
    const bool hasCome = connection.waitUntil(Connection::Clock::now() + longest, [&] {
        for (Connection::Received& message : connection.take()) {
            if (message.topic == marker) {
                isComplete = true;
            } else if (!directory.add(prefix, message.topic, message.payload) && others != nullptr) {
                others->push_back(std::move(message));
            }
        }
        return isComplete || connection.acknowledgement(number).value_or(0) >= MQTT_RC_UNSPECIFIED;
    });
    if (!hasCome) {
        throw Failure(connection.title() + ": the end of the documents has not come in 30 s",
                      ExitStatus::failure, "It is a message to '" + marker + "'. May this user read it?");
    }
    return directory;
}
