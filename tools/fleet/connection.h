// The connection of a command to the broker.
#pragma once

#include "fleet/mqtt/client.h"
#include "fleet_options.h"

#include <chrono>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <poll.h>

class Connection final : private mqtt::Listener {
public:
    using Clock = std::chrono::steady_clock;

    struct Received {
        std::string topic;
        std::string payload;
        bool retained = false;
        mqtt::MessageProperties properties;
    };

    // Connects. Throws Failure if an option cannot be used, or the broker cannot be reached or refuses the login.
    explicit Connection(const FleetOptions& options);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    // "broker mqtt://localhost:1883", for messages.
    const std::string& title() const { return m_title; }

    // The topic for answers of a machine to this connection. Nobody else can guess it.
    std::string answerTopic(const std::string& machine) const;
    // What to subscribe to for all of them.
    std::string answerFilter() const { return answerTopic("+"); }

    // The one for messages to itself. An access list that lets a machine answer everybody, as the machine that is named
    // like its user, permits it, too.
    std::string markerTopic() const { return answerTopic(user()); }

    // Subscribe, and wait until the broker has answered. Throws Failure if it refuses.
    void subscribe(std::initializer_list<std::pair<std::string, int>> filtersAndQos);

    // Publish with QoS 1, and return the message's number.
    int publish(const std::string& topic, const std::string& payload, const mqtt::Properties& properties);
    // How the broker has acknowledged the message with a number: one of MQTT_RC_. Nothing if it has not.
    std::optional<int> acknowledgement(int number) const;

    // The messages that have arrived since the last call.
    std::vector<Received> take() { return std::exchange(m_received, {}); }

    // Handle traffic until `isDone` or a point in time. Returns false if that has come. Throws Failure if the connection is
    // lost.
    bool waitUntil(Clock::time_point end, const std::function<bool()>& isDone);

    // For a loop that waits for other things, too: wait at most so long (-1: without end) for traffic or for one of
    // `others`, and handle the traffic. Also returns earlier.
    void wait(int milliseconds, std::span<pollfd> others);

    bool isConnected() const { return m_isConnected; }
    // Why there is no connection. Nothing while it exists or is made.
    const std::optional<std::string>& loss() const { return m_loss; }
    // The same as a sentence, for messages.
    std::string lossMessage() const;
    // After a loss, begin to connect again. Messages that have not been taken are lost.
    void reconnect();

private:
    std::string user() const;
    void connected(bool sessionPresent) override;
    void refused(int reason) override;
    void disconnected(const std::string& why, int reason) override;
    void received(const mqtt::Message& message) override;
    void acknowledged(int number, int reason) override;
    void subscribed(int number, int reason) override;

    FleetOptions m_options;
    std::string m_title;
    std::string m_name; // random
    std::unique_ptr<mqtt::Client> m_client;
    bool m_isConnected = false;
    bool m_isRefused = false;
    Clock::time_point m_connectEnd; // while it is made
    std::optional<std::string> m_loss;
    std::map<int, int> m_acknowledgements; // by number
    std::map<int, int> m_subscriptions;
    std::vector<Received> m_received;
};
