#include "fleet/connection.h"

#include "failure.h"
#include "hexadecimal.h"
#include "poll_timeout.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <sys/random.h>

namespace {

constexpr unsigned int keepAliveSeconds = 10;
constexpr int processingInterval = 1000; // in milliseconds

std::string randomName() {
    std::array<unsigned char, 16> bytes{};
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::system_error(errno, std::generic_category(), "random numbers");
    }
    return "gvusb-" + frameText(bytes, "");
}

std::unique_ptr<mqtt::Client> makeClient(const FleetOptions& options, const std::string& name,
                                         mqtt::Listener& listener) {
    mqtt::Client::Options clientOptions;
    clientOptions.id = name;
    clientOptions.keepAliveSeconds = keepAliveSeconds;
    clientOptions.broker = options.broker;
    try {
        return std::make_unique<mqtt::Client>(std::move(clientOptions), listener);
    } catch (const std::invalid_argument& error) {
        throw Failure(error.what(), ExitStatus::usage);
    }
}

// While a thread connects, which may take minutes, the client cannot be destroyed. Both end with the process.
void abandon(std::unique_ptr<mqtt::Client>& client) {
    if (client->isConnecting()) {
        static_cast<void>(client.release());
    }
}

std::string titleOf(const fleet::BrokerAddress& address) {
    return std::string("broker ") + (address.tls ? "mqtts://" : "mqtt://") + fleet::hostAndPort(address);
}

} // namespace

Connection::Connection(const FleetOptions& options)
    : m_options(options)
    , m_name(randomName())
    , m_client(makeClient(options, m_name, *this)) {
    m_title = titleOf(m_client->address());
    if (options.broker.user.find_first_of("+#") != std::string::npos) {
        throw Failure("--user: the topic of answers contains the name, so it must not contain '+' or '#'",
                      ExitStatus::usage);
    }
    reconnect();
    while (!m_isConnected && !m_loss) {
        wait(-1, {});
    }
    if (m_loss) {
        abandon(m_client);
        throw Failure(m_title + (m_isRefused ? ": the login was refused: " : ": cannot connect: ") + *m_loss);
    }
}

Connection::~Connection() {
    if (m_isConnected) {
        m_client->disconnect();
    }
    abandon(m_client);
}

void Connection::reconnect() {
    m_loss.reset();
    m_received.clear();
    const std::chrono::duration<double> longest(m_options.connectSeconds);
    m_connectEnd = Clock::now() + std::chrono::duration_cast<Clock::duration>(longest);
    if (!m_client->isConnecting()) {
        m_client->beginToConnect();
    }
}

void Connection::wait(int milliseconds, std::span<pollfd> others) {
    std::vector<pollfd> waited(others.begin(), others.end());
    waited.push_back({.fd = m_client->descriptor(), .events = m_client->pollEvents(), .revents = 0});
    int longest = std::min(milliseconds < 0 ? processingInterval : milliseconds, processingInterval);
    const bool isMade = !m_isConnected && !m_loss;
    if (isMade) {
        longest = std::min(longest, millisecondsUntil(m_connectEnd));
    }
    const int count = ::poll(waited.data(), waited.size(), longest);
    const short events = count > 0 ? waited.back().revents : static_cast<short>(0);
    for (std::size_t i = 0; i < others.size(); ++i) {
        others[i].revents = count > 0 ? waited[i].revents : static_cast<short>(0);
    }
    m_client->process(events);
    if (isMade && !m_isConnected && !m_loss && Clock::now() >= m_connectEnd) {
        m_loss = "no answer in time; see --connect-timeout";
    }
}

bool Connection::waitUntil(Clock::time_point end, const std::function<bool()>& isDone) {
    while (!isDone()) {
        if (m_loss) {
            throw Failure(lossMessage());
        }
        const int left = millisecondsUntil(end);
        if (left == 0) {
            return false;
        }
        wait(left, {});
    }
    return true;
}

std::string Connection::lossMessage() const {
    const bool isExplained = m_loss && *m_loss != mosquitto_strerror(MOSQ_ERR_CONN_LOST);
    return m_title + ": the connection was lost" + (isExplained ? ": " + *m_loss : std::string{});
}

std::string Connection::user() const {
    const std::string& name = m_options.broker.user;
    return name.empty() ? "anonymous" : name;
}

std::string Connection::answerTopic(const std::string& machine) const {
    return "gvusb-answers/" + user() + '/' + machine + '/' + m_name;
}

void Connection::subscribe(std::initializer_list<std::pair<std::string, int>> filtersAndQos) {
    std::map<int, std::string> filters;
    for (const auto& [filter, qos] : filtersAndQos) {
        filters[m_client->subscribe(filter, qos)] = filter;
    }
    constexpr std::chrono::seconds longest(10);
    const auto isAnswered = [this, &filters] {
        return std::ranges::all_of(filters,
                                   [this](const auto& each) { return m_subscriptions.contains(each.first); });
    };
    if (!waitUntil(Clock::now() + longest, isAnswered)) {
        throw Failure(m_title + ": it does not answer a subscription");
    }
    for (const auto& [number, filter] : filters) {
        if (m_subscriptions[number] >= MQTT_RC_UNSPECIFIED) {
            throw Failure(m_title + ": it forbids to subscribe to '" + filter +
                          "': " + mosquitto_reason_string(m_subscriptions[number]));
        }
    }
}

int Connection::publish(const std::string& topic, const std::string& payload,
                        const mqtt::Properties& properties) {
    m_acknowledgements.clear();
    try {
        return m_client->publish({.topic = topic, .payload = payload, .qos = 1, .retained = false},
                                 properties);
    } catch (const std::runtime_error& error) {
        throw Failure(m_title + ": " + error.what());
    }
}

std::optional<int> Connection::acknowledgement(int number) const {
    const auto found = m_acknowledgements.find(number);
    return found == m_acknowledgements.end() ? std::nullopt : std::optional(found->second);
}

void Connection::connected(bool) {
    m_isConnected = true;
}

void Connection::refused(int reason) {
    m_isRefused = true;
    m_loss = mosquitto_reason_string(reason);
}

void Connection::disconnected(const std::string& why, int) {
    m_isConnected = false;
    m_loss = m_loss.value_or(why); // the reason for a refusal says more
}

void Connection::received(const mqtt::Message& message) {
    m_received.push_back({.topic = std::string(message.topic),
                          .payload = std::string(message.payload),
                          .retained = message.retained,
                          .properties = message.properties});
}

void Connection::acknowledged(int number, int reason) {
    m_acknowledgements[number] = reason;
}

void Connection::subscribed(int number, int reason) {
    m_subscriptions[number] = reason;
}
