// A client of a fleet, and plain clients to compare it with.
//
// usage: fleet_client latency PORT COUNT     exchanges one after the other with one reader; prints what each took more than the
//                                            library's call, in microseconds
//        fleet_client throughput PORT S N    keeps a request under way for each of N readers for S seconds; prints the
//                                            exchanges, and the readers that have answered
//        fleet_client echo PORT MACHINE N    answers requests for N readers of a machine at once, until it is ended
//        fleet_client count PORT COUNT S N   runs COUNT requests on N readers, connecting again whenever the connection is
//                                            lost; a request is given up after S seconds; prints what became of them as JSON
//        fleet_client crowd PORT MACHINES N  connects as services of so many machines do and prints a line; publishes their
//                                            status and documents of N readers each, and prints a line; ends with its input

#include "fleet/answer.h"
#include "fleet/mqtt/client.h"
#include "fleet/topics.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <mqtt_protocol.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;

constexpr const char* prefix = fleet::defaultPrefix;

double microseconds(Clock::duration time) {
    return std::chrono::duration<double, std::micro>(time).count();
}

// A connection that is made again when it is lost.
class Connection : public mqtt::Listener {
public:
    Connection(const std::string& port, const std::string& id, std::vector<std::string> topics,
               std::optional<mqtt::Publication> will = {})
        : m_topics(std::move(topics))
        , m_client({.id = id,
                    .cleanStart = false,
                    .sessionExpirySeconds = id.empty() ? 0U : 600U,
                    .keepAliveSeconds = 5,
                    .broker = {.address = "mqtt://127.0.0.1:" + port},
                    .will = std::move(will)},
                   *this) {}

    // Handle what happens in the next milliseconds.
    void turn(int milliseconds) {
        if (!m_isUp && !m_client.isConnecting() && m_client.descriptor() < 0 && m_next <= Clock::now()) {
            m_client.beginToConnect();
        }
        pollfd waited = {.fd = m_client.descriptor(), .events = m_client.pollEvents(), .revents = 0};
        ::poll(&waited, 1, milliseconds);
        m_client.process(waited.revents);
    }

    bool isUp() const { return m_isUp; }
    int publish(const mqtt::Publication& what, const mqtt::Properties& properties) {
        return m_client.publish(what, properties);
    }

    void connected(bool) override {
        m_subscribed = 0;
        for (const std::string& topic : m_topics) {
            m_client.subscribe(topic, 1);
        }
    }
    void subscribed(int, int reason) override {
        if (reason >= MQTT_RC_UNSPECIFIED) {
            throw std::runtime_error("subscription refused");
        }
        m_isUp = ++m_subscribed == m_topics.size();
    }
    void refused(int) override { lose(); }
    void disconnected(const std::string&, int) override { lose(); }
    void acknowledged(int, int) override {}

private:
    void lose() {
        m_isUp = false;
        m_next = Clock::now() + std::chrono::milliseconds(100);
    }

    std::vector<std::string> m_topics;
    mqtt::Client m_client;
    std::size_t m_subscribed = 0;
    bool m_isUp = false;
    Clock::time_point m_next;
};

std::string responseTopic() {
    return "gvusb-answers/anonymous/bench/" + std::to_string(::getpid());
}

// Sends frames to all readers that are connected.
class Requester : public Connection {
public:
    explicit Requester(const std::string& port, const std::string& id = {})
        : Connection(port, id, {responseTopic(), std::string(prefix) + "/+/readers/+"}) {}

    void findReaders(std::size_t count) {
        const auto last = Clock::now() + std::chrono::seconds(60);
        while (targets.size() < count || !isUp()) {
            turn(100);
            if (Clock::now() > last) {
                throw std::runtime_error("only " + std::to_string(targets.size()) + " readers");
            }
        }
    }

    void send(const std::string& topic, std::string_view correlation, std::string payload,
              std::optional<std::uint32_t> expiry = {}) {
        mqtt::Properties properties;
        properties.addText(MQTT_PROP_RESPONSE_TOPIC, responseTopic());
        properties.addBytes(MQTT_PROP_CORRELATION_DATA, correlation);
        if (expiry) {
            properties.addNumber32(MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, *expiry);
        }
        publish({.topic = topic, .payload = std::move(payload)}, properties);
    }

    void received(const mqtt::Message& message) override {
        const auto topic = fleet::parseTopic(prefix, message.topic);
        if (!topic) {
            auto answer = fleet::answerOf(message.properties);
            if (!answer) {
                throw std::runtime_error("an answer without a status");
            }
            answer->payload = message.payload;
            answered(message.properties.correlationData, *answer);
            return;
        }
        const Json document = Json::parse(message.payload, nullptr, false);
        if (topic->kind == fleet::Topic::Kind::reader && document.is_object() &&
            document.value("connected", false)) {
            targets.try_emplace(std::string(message.topic), std::string(message.topic) + "/transceive");
        }
    }

    virtual void answered(const std::string& correlation, const fleet::Answer& answer) = 0;

    std::map<std::string, std::string> targets; // the topic of a reader, and of its requests
};

class Latency : public Requester {
public:
    using Requester::Requester;

    void run(int count) {
        findReaders(1);
        for (int i = 0; i < count; ++i) {
            m_isAnswered = false;
            m_start = Clock::now();
            send(targets.begin()->second, std::to_string(i), std::string("\x02\x00\x07\xFF\x01", 5));
            while (!m_isAnswered) {
                turn(1000);
            }
        }
    }

    void answered(const std::string&, const fleet::Answer& answer) override {
        const double time = microseconds(Clock::now() - m_start);
        if (answer.status != fleet::Status::ok) {
            throw std::runtime_error("failed: " + answer.text);
        }
        std::printf("%.1f\n", time - static_cast<double>(answer.microseconds.value_or(0)));
        m_isAnswered = true;
    }

private:
    Clock::time_point m_start;
    bool m_isAnswered = false;
};

class Throughput : public Requester {
public:
    using Requester::Requester;

    void run(double seconds, std::size_t readers) {
        findReaders(readers);
        const auto end = Clock::now() + std::chrono::duration<double>(seconds);
        for (const auto& [reader, topic] : targets) {
            request(topic);
        }
        while (Clock::now() < end) {
            turn(100);
        }
        std::printf("%.1f %zu\n", static_cast<double>(m_count) / seconds, m_reached.size());
    }

    void answered(const std::string& correlation, const fleet::Answer& answer) override {
        if (answer.status != fleet::Status::ok) {
            throw std::runtime_error("failed: " + answer.text);
        }
        ++m_count;
        const std::string topic = correlation.substr(correlation.find(' ') + 1);
        m_reached.insert(topic);
        request(topic);
    }

private:
    void request(const std::string& topic) {
        send(topic, std::to_string(m_number++) + ' ' + topic, std::string("\x02\x00\x07\xFF\x01", 5));
    }

    std::uint64_t m_number = 0;
    std::uint64_t m_count = 0;
    std::set<std::string> m_reached;
};

// What a service does, without readers.
class Echo : public Connection {
public:
    Echo(const std::string& port, const std::string& machine, int readers)
        : Connection(port, {}, {fleet::readerTopic(prefix, machine, "+") + "/+"})
        , m_machine(machine)
        , m_readers(readers) {}

    void subscribed(int number, int reason) override {
        Connection::subscribed(number, reason);
        for (int i = 0; i < m_readers; ++i) {
            publish({.topic = fleet::readerTopic(prefix, m_machine, std::to_string(i)),
                     .payload = R"({"connected":true})",
                     .qos = 1,
                     .retained = true},
                    {});
        }
    }

    void received(const mqtt::Message& message) override {
        mqtt::Properties properties;
        properties.addBytes(MQTT_PROP_CORRELATION_DATA, message.properties.correlationData);
        fleet::addAnswer(properties,
                         {.status = fleet::Status::ok, .code = 5, .text = "ok", .microseconds = 1});
        publish({.topic = message.properties.responseTopic, .payload = std::string(message.payload)},
                properties);
    }

    [[noreturn]] void run() {
        for (;;) {
            turn(1000);
        }
    }

private:
    std::string m_machine;
    int m_readers;
};

// As long as that of a real reader.
constexpr const char* document =
    R"({"name":"1A2B3C","id":"1A2B3C","family":"Desk","device":"Desk reader",)"
    R"("interface":"TESK RCI2","type":"D-100","path":"1-2.3","bus":1,"address":7,)"
    R"("connected":true,"since":"2026-11-23T12:00:00.123Z"})";

// What a service does without requests.
class Machine : public Connection {
public:
    Machine(const std::string& port, const std::string& name)
        : Connection(port, "gvusb-" + name,
                     {fleet::readerTopic(prefix, name, "+") + "/+", fleet::scanTopic(prefix, name),
                      fleet::readerTopic(prefix, name, "+")},
                     status(name, "offline"))
        , m_name(name) {}

    void connect() {
        turnUntil([this] { return isUp(); });
    }

    void publishAll(int readers) {
        publish(status(m_name, "online"), {});
        for (int i = 0; i < readers; ++i) {
            publish({.topic = fleet::readerTopic(prefix, m_name, std::to_string(i)),
                     .payload = document,
                     .qos = 1,
                     .retained = true},
                    {});
        }
        // It receives its own documents, as a service does.
        turnUntil([this, readers] { return m_acknowledged == readers + 1 && m_received == readers; });
    }

    void received(const mqtt::Message&) override { ++m_received; }
    void acknowledged(int, int) override { ++m_acknowledged; }

private:
    static mqtt::Publication status(const std::string& name, const char* text) {
        return {.topic = fleet::statusTopic(prefix, name), .payload = text, .qos = 1, .retained = true};
    }
    template <class Condition>
    void turnUntil(Condition holds) {
        const auto last = Clock::now() + std::chrono::seconds(60);
        while (!holds()) {
            turn(10);
            if (Clock::now() > last) {
                throw std::runtime_error("the broker does not answer " + m_name);
            }
        }
    }

    std::string m_name;
    int m_acknowledged = 0;
    int m_received = 0;
};

void crowd(const std::string& port, int count, int readers) {
    std::vector<std::unique_ptr<Machine>> machines;
    for (int i = 0; i < count; ++i) {
        machines.push_back(std::make_unique<Machine>(port, "machine-" + std::to_string(i)));
        machines.back()->connect();
    }
    std::puts("connected");
    std::fflush(stdout);
    for (const auto& machine : machines) {
        machine->publishAll(readers);
    }
    std::puts("published");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
}

// Every request's frame is its number, and so is the answer of a reader that echoes.
class Count : public Requester {
public:
    Count(const std::string& port, int count, int seconds)
        : Requester(port, "gvusb-bench-" + std::to_string(::getpid()))
        , m_total(count)
        , m_patience(seconds) {}

    void run(std::size_t readers) {
        findReaders(readers);
        for (const auto& [reader, topic] : targets) {
            m_topics.push_back(topic);
        }
        while (m_done < m_total) {
            turn(10);
            const std::size_t most = 4 * m_topics.size();
            while (isUp() && m_waiting.size() < most && m_sent < m_total) {
                const std::string number = std::to_string(m_sent);
                m_waiting.emplace(number, Clock::now() + std::chrono::seconds(m_patience));
                send(m_topics[static_cast<std::size_t>(m_sent) % m_topics.size()], number, number,
                     static_cast<std::uint32_t>(m_patience));
                ++m_sent;
            }
            giveUp();
        }
        Json result = {{"requests", m_total},
                       {"timed_out", m_timedOut},
                       {"answered_again", m_again},
                       {"wrong", m_wrong}};
        for (const auto& [status, count] : m_counts) {
            result[status] = count;
        }
        std::printf("%s\n", result.dump().c_str());
    }

    void answered(const std::string& correlation, const fleet::Answer& answer) override {
        if (m_waiting.erase(correlation) == 0) {
            ++m_again; // an answer may come twice, or after its request was given up
            return;
        }
        ++m_done;
        ++m_counts[std::string(statusName(answer.status))];
        if (answer.status == fleet::Status::ok && answer.payload != correlation) {
            ++m_wrong;
        }
    }

private:
    void giveUp() {
        const auto now = Clock::now();
        std::erase_if(m_waiting, [&](const auto& request) {
            if (request.second > now) {
                return false;
            }
            ++m_done;
            ++m_timedOut;
            return true;
        });
    }

    const int m_total;
    const int m_patience;
    std::vector<std::string> m_topics;
    std::unordered_map<std::string, Clock::time_point> m_waiting;
    std::map<std::string, int> m_counts;
    int m_sent = 0;
    int m_done = 0;
    int m_timedOut = 0;
    int m_again = 0;
    int m_wrong = 0;
};

} // namespace

int main(int count, char** arguments) {
    const std::vector<std::string> words(arguments + 1, arguments + count);
    try {
        const std::string& what = words.at(0);
        const std::string& port = words.at(1);
        if (what == "latency") {
            Latency(port).run(std::stoi(words.at(2)));
        } else if (what == "throughput") {
            Throughput(port).run(std::stod(words.at(2)), std::stoul(words.at(3)));
        } else if (what == "echo") {
            Echo(port, words.at(2), std::stoi(words.at(3))).run();
        } else if (what == "count") {
            Count(port, std::stoi(words.at(2)), std::stoi(words.at(3))).run(std::stoul(words.at(4)));
        } else if (what == "crowd") {
            crowd(port, std::stoi(words.at(2)), std::stoi(words.at(3)));
        } else {
            throw std::runtime_error("unknown: " + what);
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fleet_client: %s\n", error.what());
        return 1;
    }
    return 0;
}
