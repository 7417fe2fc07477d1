// Requests to a reader of another machine, and their answers.
#pragma once

#include "failure.h"
#include "fleet/answer.h"
#include "fleet/connection.h"
#include "fleet/target.h"
#include "fleet/topics.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

class Requester {
public:
    struct Reply {
        std::optional<fleet::Status> status; // nothing if no answer came
        std::string payload;
        std::optional<Problem> problem; // nothing if the request was done
    };

    Requester(Connection& connection, const FleetOptions& options, FleetTarget target,
              std::chrono::milliseconds timeout);

    const FleetTarget& target() const { return m_target; }
    // "reader gate-7/1A2B3C", for messages.
    std::string title() const { return "reader " + m_target.text(); }

    // Send a request and wait for its answer. Throws Failure if the connection is lost or the broker forbids it.
    Reply request(fleet::Operation operation, const std::string& payload);
    // The answer's payload. Throws Failure if the request was not done; `what` describes it.
    std::string require(const std::string& what, fleet::Operation operation, const std::string& payload);

    // The value of a parameter. Nothing if the reader does not have it; throws Failure for every other problem.
    std::optional<std::string> parameter(const std::string& key);

private:
    std::optional<Reply> replyTo(const std::string& correlation);
    Reply replyWithout(std::optional<int> acknowledgement) const;

    Connection& m_connection;
    std::string m_prefix;
    FleetTarget m_target;
    std::chrono::milliseconds m_timeout;
    std::uint64_t m_count = 0;
    bool m_isOffline = false;
};

// Add the option that says how long to wait for an answer.
void addAnswerTimeout(CLI::App& command, unsigned int& milliseconds);
inline constexpr unsigned int defaultAnswerTimeout = 5000;
