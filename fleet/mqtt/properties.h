// The properties of MQTT 5 packets.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <mosquitto.h>

namespace mqtt {

// The properties of a packet to send. Each function throws std::bad_alloc if memory runs out, and std::invalid_argument
// for a text that MQTT does not allow.
class Properties {
public:
    Properties() = default;
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;
    ~Properties() { mosquitto_property_free_all(&m_list); }

    void addNumber32(int identifier, std::uint32_t value);
    void addText(int identifier, const std::string& text);
    void addBytes(int identifier, std::string_view bytes);
    void addUserProperty(const std::string& name, const std::string& value);

    const mosquitto_property* list() const { return m_list; }

private:
    mosquitto_property* m_list = nullptr;
};

// What a received message carries beside its payload.
struct MessageProperties {
    std::string responseTopic;
    std::string correlationData;
    std::optional<std::uint32_t> expirySeconds; // what was left when the broker sent it
    std::vector<std::pair<std::string, std::string>> userProperties;

    static MessageProperties of(const mosquitto_property* list);
};

} // namespace mqtt
