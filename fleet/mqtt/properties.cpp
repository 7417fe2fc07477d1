#include "fleet/mqtt/properties.h"

#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>

#include <mqtt_protocol.h>

namespace mqtt {
namespace {

struct Free {
    void operator()(void* memory) const {
        std::free(memory);
    } // NOLINT(*-no-malloc): libmosquitto allocates it
};
using OwnedText = std::unique_ptr<char, Free>;

void check(int code) {
    if (code == MOSQ_ERR_NOMEM) {
        throw std::bad_alloc();
    }
    if (code != MOSQ_ERR_SUCCESS) {
        throw std::invalid_argument(mosquitto_strerror(code));
    }
}

std::string text(const mosquitto_property* list, int identifier) {
    char* value = nullptr;
    if (mosquitto_property_read_string(list, identifier, &value, false) == nullptr) {
        return {};
    }
    const OwnedText owned(value);
    return value;
}

std::string bytes(const mosquitto_property* list, int identifier) {
    void* value = nullptr;
    std::uint16_t size = 0;
    if (mosquitto_property_read_binary(list, identifier, &value, &size, false) == nullptr) {
        return {};
    }
    const std::unique_ptr<void, Free> owned(value);
    return value == nullptr ? std::string{} : std::string(static_cast<const char*>(value), size);
}

} // namespace

void Properties::addNumber32(int identifier, std::uint32_t value) {
    check(mosquitto_property_add_int32(&m_list, identifier, value));
}

void Properties::addText(int identifier, const std::string& text) {
    check(mosquitto_property_add_string(&m_list, identifier, text.c_str()));
}

void Properties::addBytes(int identifier, std::string_view bytes) {
    if (bytes.size() > std::numeric_limits<std::uint16_t>::max()) {
        throw std::invalid_argument("a property has at most 65535 bytes");
    }
    check(mosquitto_property_add_binary(&m_list, identifier, bytes.data(),
                                        static_cast<std::uint16_t>(bytes.size())));
}

void Properties::addUserProperty(const std::string& name, const std::string& value) {
    check(mosquitto_property_add_string_pair(&m_list, MQTT_PROP_USER_PROPERTY, name.c_str(), value.c_str()));
}

MessageProperties MessageProperties::of(const mosquitto_property* list) {
    MessageProperties properties;
    if (list == nullptr) {
        return properties;
    }
    properties.responseTopic = text(list, MQTT_PROP_RESPONSE_TOPIC);
    properties.correlationData = bytes(list, MQTT_PROP_CORRELATION_DATA);
    std::uint32_t seconds = 0;
    if (mosquitto_property_read_int32(list, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &seconds, false) != nullptr) {
        properties.expirySeconds = seconds;
    }
    char* name = nullptr;
    char* value = nullptr;
    for (const mosquitto_property* next =
             mosquitto_property_read_string_pair(list, MQTT_PROP_USER_PROPERTY, &name, &value, false);
         next != nullptr;
         next = mosquitto_property_read_string_pair(next, MQTT_PROP_USER_PROPERTY, &name, &value, true)) {
        const OwnedText ownedName(name);
        const OwnedText ownedValue(value);
        properties.userProperties.emplace_back(name, value);
    }
    return properties;
}

} // namespace mqtt
