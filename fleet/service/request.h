// A request as it is run.
#pragma once

#include "fleet/answer.h"
#include "fleet/topics.h"

#include <chrono>
#include <optional>
#include <string>

namespace fleet {

struct Request {
    Operation operation = Operation::transceive;
    std::string reader; // its name in the topic
    std::string payload;
    std::string responseTopic;
    std::string correlationData;
    std::optional<std::chrono::steady_clock::time_point> expiry = {};

    bool isExpired() const { return expiry && *expiry <= std::chrono::steady_clock::now(); }
};

inline Answer expired() {
    return {.status = Status::expired, .text = "the request waited longer than its message expiry"};
}

struct AnsweredRequest {
    Request request;
    Answer answer;
};

} // namespace fleet
