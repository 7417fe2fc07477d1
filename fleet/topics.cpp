#include "fleet/topics.h"

#include <algorithm>
#include <array>
#include <utility>

#include <mosquitto.h>

namespace fleet {
namespace {

constexpr std::size_t longestName = 64;

constexpr std::array<std::pair<std::string_view, Operation>, 5> readerOperations = {
    {{"transceive", Operation::transceive},
     {"transmit", Operation::transmit},
     {"receive", Operation::receive},
     {"get", Operation::get},
     {"set", Operation::set}}};

// Take the text before the next '/' off the front. The rest is empty after the last level.
std::string_view takeLevel(std::string_view& text) {
    const std::size_t slash = text.find('/');
    const std::string_view level = text.substr(0, slash);
    text.remove_prefix(slash == std::string_view::npos ? text.size() : slash + 1);
    return level;
}

std::string machineTopic(const std::string& prefix, std::string_view machine) {
    std::string topic;
    topic.append(prefix).append("/").append(machine);
    return topic;
}

} // namespace

std::string_view operationName(Operation operation) {
    const auto* const found =
        std::ranges::find(readerOperations, operation, &std::pair<std::string_view, Operation>::second);
    return found == readerOperations.end() ? "scan" : found->first;
}

bool isMachineName(std::string_view text) {
    const auto isForbidden = [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        constexpr unsigned char del = 0x7F;
        return byte <= ' ' || byte == del || c == '/' || c == '+' || c == '#';
    };
    return !text.empty() && text.size() <= longestName && !text.starts_with('$') &&
           std::ranges::none_of(text, isForbidden) &&
           mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

bool isPrefix(std::string_view text) {
    if (text.empty() || text.ends_with('/')) {
        return false;
    }
    while (!text.empty()) {
        if (!isMachineName(takeLevel(text))) {
            return false;
        }
    }
    return true;
}

std::string statusTopic(const std::string& prefix, std::string_view machine) {
    return machineTopic(prefix, machine) + "/status";
}

std::string eventsTopic(const std::string& prefix, std::string_view machine) {
    return machineTopic(prefix, machine) + "/events";
}

std::string scanTopic(const std::string& prefix, std::string_view machine) {
    return machineTopic(prefix, machine) + "/scan";
}

std::string readerTopic(const std::string& prefix, std::string_view machine, std::string_view reader) {
    return machineTopic(prefix, machine).append("/readers/").append(reader);
}

std::string requestTopic(const std::string& prefix, std::string_view machine, std::string_view reader,
                         Operation operation) {
    if (operation == Operation::scan) {
        return scanTopic(prefix, machine);
    }
    return readerTopic(prefix, machine, reader).append("/").append(operationName(operation));
}

std::optional<Topic> parseTopic(const std::string& prefix, std::string_view whole) {
    std::string_view topic = whole;
    if (!topic.starts_with(prefix) || topic.size() <= prefix.size() || topic[prefix.size()] != '/') {
        return std::nullopt;
    }
    topic.remove_prefix(prefix.size() + 1);
    Topic parsed{.kind = Topic::Kind::status, .machine = takeLevel(topic), .reader = {}};
    if (parsed.machine.empty()) {
        return std::nullopt;
    }
    if (topic == "status") {
        return parsed;
    }
    if (topic == "events") {
        parsed.kind = Topic::Kind::events;
        return parsed;
    }
    if (topic == "scan") {
        parsed.kind = Topic::Kind::request;
        parsed.operation = Operation::scan;
        return parsed;
    }
    if (takeLevel(topic) != "readers") {
        return std::nullopt;
    }
    parsed.reader = takeLevel(topic);
    if (parsed.reader.empty() || whole.ends_with('/')) {
        return std::nullopt;
    }
    if (topic.empty()) {
        parsed.kind = Topic::Kind::reader;
        return parsed;
    }
    const auto* const found =
        std::ranges::find(readerOperations, topic, &std::pair<std::string_view, Operation>::first);
    if (found == readerOperations.end()) {
        return std::nullopt;
    }
    parsed.kind = Topic::Kind::request;
    parsed.operation = found->second;
    return parsed;
}

} // namespace fleet
