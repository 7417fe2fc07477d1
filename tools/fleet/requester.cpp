#include "fleet/requester.h"

#include "fleet/answer_problem.h"

#include <algorithm>
#include <limits>
#include <utility>

#include <mosquitto.h>
#include <mqtt_protocol.h>

namespace {

// The request must not run after its requester has given up, so the expiry is not longer than the time-out. A second is
// the shortest expiry.
std::uint32_t expirySeconds(std::chrono::milliseconds timeout) {
    return static_cast<std::uint32_t>(
        std::max<std::int64_t>(1, std::chrono::floor<std::chrono::seconds>(timeout).count()));
}

} // namespace

Requester::Requester(Connection& connection, const FleetOptions& options, FleetTarget target,
                     std::chrono::milliseconds timeout)
    : m_connection(connection)
    , m_prefix(options.prefix)
    , m_target(std::move(target))
    , m_timeout(timeout) {
    // The machine's status explains why an answer does not come.
    connection.subscribe(
        {{connection.answerFilter(), 1}, {fleet::statusTopic(m_prefix, m_target.machine), 0}});
}

Requester::Reply Requester::request(fleet::Operation operation, const std::string& payload) {
    const std::string correlation = std::to_string(++m_count);
    mqtt::Properties properties;
    properties.addText(MQTT_PROP_RESPONSE_TOPIC, m_connection.answerTopic(m_target.machine));
    properties.addBytes(MQTT_PROP_CORRELATION_DATA, correlation);
    properties.addNumber32(MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, expirySeconds(m_timeout));
    const std::string topic = fleet::requestTopic(m_prefix, m_target.machine, m_target.reader, operation);
    const int number = m_connection.publish(topic, payload, properties);

    std::optional<Reply> reply;
    std::optional<int> acknowledgement;
    m_connection.waitUntil(Connection::Clock::now() + m_timeout, [&] {
        reply = replyTo(correlation);
        acknowledgement = m_connection.acknowledgement(number);
        // An acknowledgement with another code than success means that no answer will come.
        return reply || acknowledgement.value_or(MQTT_RC_SUCCESS) != MQTT_RC_SUCCESS || m_connection.loss();
    });
    if (reply) {
        return *reply;
    }
    if (m_connection.loss()) {
        throw Failure(m_connection.lossMessage() + "; the request may have run or not");
    }
    if (acknowledgement.value_or(MQTT_RC_SUCCESS) >= MQTT_RC_UNSPECIFIED) {
        throw Failure(m_connection.title() + ": it forbids to publish to '" + topic +
                      "': " + mosquitto_reason_string(*acknowledgement));
    }
    return replyWithout(acknowledgement);
}

std::optional<Requester::Reply> Requester::replyTo(const std::string& correlation) {
    std::optional<Reply> reply;
    for (Connection::Received& message : m_connection.take()) {
        if (message.topic == fleet::statusTopic(m_prefix, m_target.machine)) {
            m_isOffline = message.payload == fleet::offline;
        } else if (message.properties.correlationData == correlation) {
            if (const auto answer = fleet::answerOf(message.properties)) {
                reply = Reply{.status = answer->status,
                              .payload = std::move(message.payload),
                              .problem = problemOf(*answer)};
            }
        }
    }
    return reply;
}

Requester::Reply Requester::replyWithout(std::optional<int> acknowledgement) const {
    Problem problem{.status = ExitStatus::timeOut, .code = {}, .text = {}};
    const std::string time = "no answer within " + std::to_string(m_timeout.count()) + " ms";
    if (acknowledgement == MQTT_RC_NO_MATCHING_SUBSCRIBERS) {
        problem = {.status = ExitStatus::notFound,
                   .code = {},
                   .text = "no service takes requests for machine " + m_target.machine};
    } else if (!acknowledgement) {
        problem.text = time + ", nor has the broker acknowledged the request; it may have run or not";
    } else if (m_isOffline) {
        problem.text = time + "; machine " + m_target.machine + " is offline";
    } else {
        problem.text = time + "; the request may have run or not";
    }
    return {.status = {}, .payload = {}, .problem = problem};
}

std::string Requester::require(const std::string& what, fleet::Operation operation,
                               const std::string& payload) {
    Reply reply = request(operation, payload);
    if (reply.problem) {
        throw failureOf(what, *reply.problem);
    }
    return std::move(reply.payload);
}

std::optional<std::string> Requester::parameter(const std::string& key) {
    Reply reply = request(fleet::Operation::get, key);
    if (reply.status == fleet::Status::failed && reply.problem->status == ExitStatus::failure) {
        return std::nullopt;
    }
    if (reply.problem) {
        throw failureOf(title(), *reply.problem);
    }
    return std::move(reply.payload);
}

void addAnswerTimeout(CLI::App& command, unsigned int& milliseconds) {
    command.add_option("--timeout", milliseconds, "Wait at most so many milliseconds for an answer (5000)")
        ->type_name("MS")
        ->check(CLI::Range(1U, static_cast<unsigned int>(std::numeric_limits<int>::max())).description(""));
}
