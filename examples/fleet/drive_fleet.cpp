// Send a frame to every reader of a fleet at the same time, over an MQTT broker.
//
// usage: drive_fleet HOST PORT HEX
//
// For a broker with TLS and users, set MQTT_CA_FILE, MQTT_USER and MQTT_PASSWORD_FILE in the environment.
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <queue>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// A request may wait so long before it runs, and the documents may take so long.
constexpr std::chrono::seconds longest(5);
// All documents have arrived if no further one has come for so long.
constexpr std::chrono::seconds quiet(1);
// Busy readers are asked again if no answer has come for so long.
constexpr std::chrono::milliseconds pause(50);

using Reader = std::pair<std::string, std::string>; // machine and name

std::ostream& operator<<(std::ostream& stream, const Reader& reader) {
    return stream << reader.first << ' ' << reader.second;
}

struct Message {
    std::vector<std::string> topic; // its levels
    std::string payload;
    std::string request; // correlation data
    std::map<std::string, std::string> properties;
};

void check(int code) {
    if (code != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error(mosquitto_strerror(code));
    }
}

const char* environment(const char* name, const char* otherwise = nullptr) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : otherwise;
}

std::string randomText() {
    std::random_device random;
    std::ostringstream text;
    text << std::hex << random() << random();
    return text.str();
}

std::string bytesOf(const std::string& hex) {
    if (hex.size() % 2 != 0 || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        throw std::runtime_error('"' + hex + "\" is not a frame in hexadecimal");
    }
    std::string bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

std::string hexOf(const std::string& bytes) {
    std::string text;
    char digits[4];
    for (const char byte : bytes) {
        std::snprintf(digits, sizeof digits, "%s%02X", text.empty() ? "" : " ",
                      static_cast<unsigned char>(byte));
        text += digits;
    }
    return text;
}

Message messageOf(const mosquitto_message& received, const mosquitto_property* properties) {
    Message message;
    std::istringstream topic(received.topic);
    for (std::string level; std::getline(topic, level, '/');) {
        message.topic.push_back(level);
    }
    message.payload.assign(static_cast<const char*>(received.payload),
                           static_cast<std::size_t>(received.payloadlen));

    void* data = nullptr;
    std::uint16_t size = 0;
    if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &data, &size, false) !=
        nullptr) {
        message.request.assign(static_cast<char*>(data), size);
        std::free(data);
    }
    char* name = nullptr;
    char* value = nullptr;
    bool further = false;
    while ((properties = mosquitto_property_read_string_pair(properties, MQTT_PROP_USER_PROPERTY, &name,
                                                             &value, further)) != nullptr) {
        message.properties[name] = value;
        std::free(name);
        std::free(value);
        further = true;
    }
    return message;
}

class Fleet {
public:
    Fleet(const char* host, int port) {
        // The library calls these from mosquitto_loop. What may fail happens later.
        mosquitto_connect_callback_set(client(), [](mosquitto*, void* self, int code) {
            static_cast<Fleet*>(self)->m_connected = code;
        });
        mosquitto_message_v5_callback_set(client(), [](mosquitto*, void* self,
                                                       const mosquitto_message* message,
                                                       const mosquitto_property* properties) {
            static_cast<Fleet*>(self)->m_inbox.push(messageOf(*message, properties));
        });
        check(mosquitto_int_option(client(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5));
        if (const char* authority = environment("MQTT_CA_FILE")) {
            check(mosquitto_tls_set(client(), authority, nullptr, nullptr, nullptr, nullptr));
        }
        if (const char* path = environment("MQTT_PASSWORD_FILE")) {
            std::string password;
            std::ifstream file(path);
            if (!std::getline(file, password)) {
                throw std::runtime_error("there is no password in " + std::string(path));
            }
            check(mosquitto_username_pw_set(client(), m_user.c_str(), password.c_str()));
        }
        check(mosquitto_connect(client(), host, port, 60));
        while (!m_connected) {
            const int code = mosquitto_loop(client(), 100, 1);
            if (!m_connected) { // otherwise the broker says why
                check(code);
            }
        }
        if (*m_connected != 0) {
            throw std::runtime_error(mosquitto_reason_string(*m_connected));
        }
    }

    // The readers that can be reached. The broker keeps what each machine published last.
    std::vector<Reader> readers() {
        // With QoS 0, because a broker may limit how many messages of a higher QoS wait for a client.
        check(mosquitto_subscribe(client(), nullptr, "gvusb/+/status", 0));
        check(mosquitto_subscribe(client(), nullptr, "gvusb/+/readers/+", 0));
        std::map<std::string, bool> online;
        std::map<Reader, bool> present;
        const Clock::time_point end = Clock::now() + longest;
        while (const std::optional<Message> message = Clock::now() < end ? receive(quiet) : std::nullopt) {
            const std::string& machine = message->topic.at(1);
            if (message->topic.at(2) == "status") {
                online[machine] = message->payload == "online";
            } else {
                present[{machine, message->topic.at(3)}] =
                    !message->payload.empty() &&
                    nlohmann::json::parse(message->payload).at("connected").get<bool>();
            }
        }
        check(mosquitto_unsubscribe(client(), nullptr, "gvusb/+/status"));
        check(mosquitto_unsubscribe(client(), nullptr, "gvusb/+/readers/+"));
        std::vector<Reader> reachable;
        for (const auto& [reader, connected] : present) {
            if (connected && online[reader.first]) {
                reachable.push_back(reader);
            }
        }
        return reachable;
    }

    // Send the frame to all readers and print their answers. Returns whether all have answered.
    bool drive(const std::string& frame) {
        const std::vector<Reader> all = readers();
        check(mosquitto_subscribe(client(), nullptr, responseTopic("+").c_str(), 1));
        std::map<std::string, Reader> waiting; // by the correlation data
        for (const Reader& reader : all) {
            waiting[send(reader, frame)] = reader;
        }
        std::vector<Reader> busy;
        std::size_t answered = 0;
        const Clock::time_point end = Clock::now() + longest + std::chrono::seconds(1);
        while ((!waiting.empty() || !busy.empty()) && Clock::now() < end) {
            std::optional<Message> answer = receive(pause);
            if (!answer) {
                for (const Reader& reader : std::exchange(busy, {})) {
                    waiting[send(reader, frame)] = reader;
                }
                continue;
            }
            const auto found = waiting.find(answer->request);
            if (found == waiting.end()) {
                continue;
            }
            const Reader reader = found->second;
            waiting.erase(found);
            const std::string& status = answer->properties["status"];
            if (status == "ok") {
                ++answered;
                std::cout << reader << ' ' << hexOf(answer->payload) << '\n';
            } else if (status == "busy") { // others use it, too: try again
                busy.push_back(reader);
            } else { // after "unknown", the frame may have been sent: only the reader can tell
                std::cout << reader << ' ' << status << ": " << answer->properties["text"] << '\n';
            }
        }
        for (const auto& [request, reader] : waiting) {
            busy.push_back(reader);
        }
        for (const Reader& reader : busy) {
            std::cout << reader << " no answer\n";
        }
        std::cout << answered << " of " << all.size() << " readers answered\n";
        return answered == all.size();
    }

private:
    struct Destroy {
        void operator()(mosquitto* client) const { mosquitto_destroy(client); }
    };

    mosquitto* client() const { return m_client.get(); }

    std::optional<Message> receive(Clock::duration longestWait) {
        const Clock::time_point end = Clock::now() + longestWait;
        while (m_inbox.empty()) {
            if (Clock::now() >= end) {
                return std::nullopt;
            }
            check(mosquitto_loop(client(), 10, 1));
        }
        Message message = std::move(m_inbox.front());
        m_inbox.pop();
        return message;
    }

    std::string responseTopic(const std::string& machine) const {
        return "gvusb-answers/" + m_user + '/' + machine + '/' + m_me;
    }

    // Send a frame, and return the correlation data of the answer.
    std::string send(const Reader& reader, const std::string& frame) {
        std::string request = std::to_string(++m_requests); // nobody else uses this response topic
        const std::string topic = "gvusb/" + reader.first + "/readers/" + reader.second + "/transceive";
        mosquitto_property* properties = nullptr;
        check(mosquitto_property_add_string(&properties, MQTT_PROP_RESPONSE_TOPIC,
                                            responseTopic(reader.first).c_str()));
        check(mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, request.data(),
                                            static_cast<std::uint16_t>(request.size())));
        check(mosquitto_property_add_int32(&properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, longest.count()));
        const int code =
            mosquitto_publish_v5(client(), nullptr, topic.c_str(), static_cast<int>(frame.size()),
                                 frame.data(), 1, false, properties);
        mosquitto_property_free_all(&properties);
        check(code);
        return request;
    }

    const std::string m_user = environment("MQTT_USER", "anonymous");
    const std::string m_me = randomText();
    const std::unique_ptr<mosquitto, Destroy> m_client{mosquitto_new(m_me.c_str(), true, this)};
    std::optional<int> m_connected; // what the broker said
    std::queue<Message> m_inbox;
    unsigned int m_requests = 0;
};

} // namespace

int main(int argc, char** argv) try {
    if (argc != 4) {
        std::cerr << "usage: drive_fleet HOST PORT HEX\n";
        return EXIT_FAILURE;
    }
    mosquitto_lib_init();
    Fleet fleet(argv[1], std::stoi(argv[2]));
    return fleet.drive(bytesOf(argv[3])) ? EXIT_SUCCESS : EXIT_FAILURE;
} catch (const std::exception& error) {
    std::cerr << "drive_fleet: " << error.what() << '\n';
    return EXIT_FAILURE;
}
