// The answer to a request, as the user properties and the payload of its message.
#pragma once

#include "fleet/mqtt/properties.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace fleet {

enum class Status : std::uint8_t {
    ok,
    failed,  // the library returned a failure
    absent,  // there is no such reader; not run
    busy,    // the reader's queue is full; not run
    expired, // the request waited too long; not run
    refused, // the request is not valid; not run
    unknown  // whether it ran cannot be known
};

std::string_view statusName(Status status);
std::optional<Status> parseStatus(std::string_view name);

struct Answer {
    Status status = Status::ok;
    std::optional<int> code = {}; // what the library returned
    std::string text = {};        // for people
    std::optional<std::uint64_t> microseconds = {};
    std::string payload = {};
};

void addAnswer(mqtt::Properties& properties, const Answer& answer);

// Nothing if the properties are not those of an answer. Its payload is empty.
std::optional<Answer> answerOf(const mqtt::MessageProperties& properties);

} // namespace fleet
