// A connection to an MQTT 5 broker, driven by the poll loop of its owner.
#pragma once

#include "fleet/broker.h"
#include "fleet/mqtt/properties.h"

#include <cstdint>
#include <exception>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <mosquitto.h>
#include <mqtt_protocol.h>

namespace mqtt {

// "libmosquitto 2.0.11", of the library that the program runs with.
std::string libraryVersion();

// A received message. The views are valid during the call that delivers it.
struct Message {
    std::string_view topic;
    std::string_view payload;
    bool retained = false;
    MessageProperties properties;
};

struct Publication {
    std::string topic;
    std::string payload;
    int qos = 1;
    bool retained = false;
};

// What happens on the connection. The functions are called from Client::process().
class Listener {
public:
    // The broker has accepted the connection. If it has not kept the session, subscriptions are gone.
    virtual void connected(bool sessionPresent) = 0;
    // The broker has refused the connection; `reason` is one of MQTT_RC_. There is no call of disconnected() then.
    virtual void refused(int reason) = 0;
    // The connection has ended, or could not be made.
    virtual void disconnected(const std::string& why, int reason) = 0;
    virtual void received(const Message& message) = 0;
    // The broker has taken over the message with this number. `reason` is one of MQTT_RC_, 128 and more for failures.
    virtual void acknowledged(int number, int reason) = 0;
    // The broker has answered a subscription. A code of 128 and more is a refusal.
    virtual void subscribed(int number, int reason) = 0;

protected:
    ~Listener() = default;
};

class Client {
public:
    struct Options {
        std::string id; // empty: the broker chooses one
        bool cleanStart = true;
        std::uint32_t sessionExpirySeconds = 0;
        unsigned int keepAliveSeconds = 60;
        fleet::BrokerOptions broker;
        std::optional<Publication> will = {};
    };

    // Throws std::runtime_error if a file cannot be used, std::invalid_argument for an invalid address.
    Client(Options options, Listener& listener);
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client();

    const fleet::BrokerAddress& address() const { return m_address; }

    // Begin to connect, in a thread of its own: resolving the name and connecting may take minutes. descriptor() is
    // readable when it has ended. The listener learns the result from process().
    void beginToConnect();
    bool isConnecting() const { return m_connecting.valid(); }

    // What to poll for. The descriptor changes with the state; -1 if there is nothing to wait for.
    int descriptor() const;
    short pollEvents() const;
    // Call it when poll() reports events for the descriptor, and at least once a second. Throws what the listener throws.
    void process(short pollEvents);

    // Publish, and return the message's number, which acknowledged() is called with. Messages of QoS 1 that the broker has
    // not acknowledged when the connection is lost are sent again over the next one. Not while isConnecting().
    // Throws std::runtime_error if the message cannot be sent at all, such as one that is longer than the broker permits.
    int publish(const Publication& what, const Properties& properties);
    // `options` are those of MQTT_SUB_OPT_.
    int subscribe(const std::string& filter, int qos, int options = 0);

    // End the connection, with one of MQTT_RC_ as the reason, which decides whether the broker publishes the will.
    void disconnect(int reason = MQTT_RC_NORMAL_DISCONNECTION);

private:
    struct Destroy {
        void operator()(mosquitto* client) const { mosquitto_destroy(client); }
    };

    static Client& of(void* self) { return *static_cast<Client*>(self); }
    // Call a function of the listener. Keep what it throws.
    template <class Function>
    void guard(Function function) {
        try {
            function(*this);
        } catch (...) {
            m_thrown = std::current_exception();
        }
    }

    void useTls();
    void finishConnecting();
    void handle(int code);
    std::string explained(int code) const;
    void reportLoss(const std::string& why);

    Options m_options;
    fleet::BrokerAddress m_address;
    Listener& m_listener;
    Properties m_connectProperties;
    std::unique_ptr<mosquitto, Destroy> m_client;
    int m_connectDone; // an eventfd
    std::future<int> m_connecting;
    int m_disconnectReason = 0;
    bool m_wasRefused = false;
    bool m_isOpen = false; // there is a connection whose end has not been reported
    std::exception_ptr m_thrown;
    std::string m_errors; // that libmosquitto has logged since the last attempt to connect
};

} // namespace mqtt
