#include "fleet/mqtt/client.h"

#include <cerrno>
#include <cstring>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace mqtt {
namespace {

constexpr const char* systemCertificates = "/etc/ssl/certs";

void initializeLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

std::string errorText(int code) {
    if (code == MOSQ_ERR_ERRNO) {
        return std::generic_category().message(errno);
    }
    return mosquitto_strerror(code);
}

void check(const std::string& what, int code) {
    if (code != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error(what + ": " + errorText(code));
    }
}

// Throw if libmosquitto rejects a request. That the connection is lost is no rejection: process() reports it, and
// libmosquitto sends a message of QoS 1 again.
void checkRequest(const std::string& what, int code) {
    switch (code) {
    case MOSQ_ERR_NOMEM:
    case MOSQ_ERR_PROTOCOL:
    case MOSQ_ERR_INVAL:
    case MOSQ_ERR_PAYLOAD_SIZE:
    case MOSQ_ERR_MALFORMED_UTF8:
    case MOSQ_ERR_DUPLICATE_PROPERTY:
    case MOSQ_ERR_QOS_NOT_SUPPORTED:
    case MOSQ_ERR_OVERSIZE_PACKET:
    case MOSQ_ERR_RETAIN_NOT_SUPPORTED:
        check(what, code);
        break;
    default:
        break;
    }
}

void requireReadable(const std::string& path) {
    if (::access(path.c_str(), R_OK) != 0) {
        throw std::runtime_error("'" + path + "' cannot be read: " + std::generic_category().message(errno));
    }
}

// A broker sends an acknowledgement and soon after it a message. With Nagle's algorithm (Mosquitto's default), the message
// waits until this system has acknowledged what came before, which it puts off for 40 ms. The kernel forgets the setting.
void acknowledgeAtOnce(int socket) {
    const int yes = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &yes, sizeof yes);
}

const char* orNull(const std::string& text) {
    return text.empty() ? nullptr : text.c_str();
}

} // namespace

std::string libraryVersion() {
    int major = 0;
    int minor = 0;
    int revision = 0;
    mosquitto_lib_version(&major, &minor, &revision);
    return "libmosquitto " + std::to_string(major) + '.' + std::to_string(minor) + '.' +
           std::to_string(revision);
}

Client::Client(Options options, Listener& listener)
    : m_options(std::move(options))
    , m_address(fleet::parseBrokerAddress(m_options.broker.address, m_options.broker.insecure))
    , m_listener(listener)
    , m_connectDone(-1) {
    initializeLibrary();
    m_client.reset(mosquitto_new(orNull(m_options.id), m_options.cleanStart || m_options.id.empty(), this));
    if (m_client == nullptr) {
        throw std::system_error(errno, std::generic_category(), "MQTT client");
    }
    mosquitto* const client = m_client.get();
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    m_connectProperties.addNumber32(MQTT_PROP_SESSION_EXPIRY_INTERVAL, m_options.sessionExpirySeconds);

    const fleet::BrokerOptions& broker = m_options.broker;
    if (!broker.user.empty()) {
        const std::string password =
            broker.passwordFile.empty() ? std::string{} : fleet::readSecret(broker.passwordFile);
        check("user name",
              mosquitto_username_pw_set(client, broker.user.c_str(),
                                        broker.passwordFile.empty() ? nullptr : password.c_str()));
    }
    if (m_address.tls) {
        useTls();
    }
    if (m_options.will) {
        const Publication& will = *m_options.will;
        check("last will",
              mosquitto_will_set_v5(client, will.topic.c_str(), static_cast<int>(will.payload.size()),
                                    will.payload.data(), will.qos, will.retained, nullptr));
    }
    // An exception must not pass through libmosquitto: guard() keeps it for process().
    mosquitto_connect_v5_callback_set(
        client, [](mosquitto* connected, void* self, int reason, int flags, const mosquitto_property*) {
            mosquitto_log_callback_set(connected, nullptr);
            of(self).guard([&](Client& owner) {
                constexpr int sessionPresent = 1;
                if (reason == MQTT_RC_SUCCESS) {
                    owner.m_listener.connected((flags & sessionPresent) != 0);
                } else {
                    owner.m_wasRefused = true;
                    owner.m_listener.refused(reason);
                }
            });
        });
    mosquitto_disconnect_v5_callback_set(client,
                                         [](mosquitto*, void* self, int reason, const mosquitto_property*) {
                                             of(self).m_disconnectReason = reason;
                                         });
    mosquitto_message_v5_callback_set(
        client, [](mosquitto*, void* self, const mosquitto_message* message, const mosquitto_property* list) {
            of(self).guard([&](Client& owner) {
                owner.m_listener.received({.topic = message->topic,
                                           .payload = {static_cast<const char*>(message->payload),
                                                       static_cast<std::size_t>(message->payloadlen)},
                                           .retained = message->retain,
                                           .properties = MessageProperties::of(list)});
            });
        });
    mosquitto_publish_v5_callback_set(
        client, [](mosquitto*, void* self, int number, int reason, const mosquitto_property*) {
            of(self).guard([&](Client& owner) { owner.m_listener.acknowledged(number, reason); });
        });
    mosquitto_subscribe_v5_callback_set(
        client, [](mosquitto*, void* self, int number, int, const int* granted, const mosquitto_property*) {
            of(self).guard([&](Client& owner) { owner.m_listener.subscribed(number, *granted); });
        });
    m_connectDone = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_connectDone < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

Client::~Client() {
    if (m_connecting.valid()) {
        m_connecting.wait();
    }
    ::close(m_connectDone);
}

void Client::useTls() {
    mosquitto* const client = m_client.get();
    const fleet::BrokerOptions& broker = m_options.broker;
    const std::string certificate = fleet::credentialPath(broker.certificate);
    const std::string key = fleet::credentialPath(broker.key);
    const std::string ca = fleet::credentialPath(broker.caFile);
    // libmosquitto does not say which file is wrong.
    for (const std::string* const file : {&ca, &certificate, &key}) {
        if (!file->empty()) {
            requireReadable(*file);
        }
    }
    if (ca.empty()) {
        check("the system's certificates", mosquitto_int_option(client, MOSQ_OPT_TLS_USE_OS_CERTS, 1));
    }
    // libmosquitto takes a certificate of its own only with a file or folder of those that it trusts.
    if (!ca.empty() || !certificate.empty()) {
        check("TLS", mosquitto_tls_set(client, orNull(ca), ca.empty() ? systemCertificates : nullptr,
                                       orNull(certificate), orNull(key), nullptr));
    }
    constexpr int verifyPeer = 1;
    check("TLS", mosquitto_tls_opts_set(client, verifyPeer, nullptr, nullptr));
}

void Client::beginToConnect() {
    m_disconnectReason = 0;
    m_wasRefused = false;
    // For some errors, libmosquitto says only here what was wrong. Once connected, it would format a text for each packet.
    m_errors.clear();
    mosquitto_log_callback_set(m_client.get(), [](mosquitto*, void* self, int level, const char* text) {
        if (level == MOSQ_LOG_ERR) {
            of(self).m_errors.append(of(self).m_errors.empty() ? "" : "; ").append(text);
        }
    });
    m_connecting = std::async(std::launch::async, [this] {
        const int code = mosquitto_connect_bind_v5(m_client.get(), m_address.host.c_str(), m_address.port,
                                                   static_cast<int>(m_options.keepAliveSeconds), nullptr,
                                                   m_connectProperties.list());
        const int result = code == MOSQ_ERR_ERRNO ? -errno : code;
        static_cast<void>(::eventfd_write(m_connectDone, 1));
        return result;
    });
}

void Client::finishConnecting() {
    eventfd_t count = 0;
    static_cast<void>(::eventfd_read(m_connectDone, &count));
    const int code = m_connecting.get();
    m_isOpen = code == MOSQ_ERR_SUCCESS;
    if (!m_isOpen) {
        reportLoss(code < 0 ? std::generic_category().message(-code) : explained(code));
    }
}

int Client::descriptor() const {
    return m_connecting.valid() ? m_connectDone : mosquitto_socket(m_client.get());
}

short Client::pollEvents() const {
    const bool writes = !m_connecting.valid() && mosquitto_want_write(m_client.get());
    return static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN);
}

void Client::process(short pollEvents) {
    if (m_connecting.valid()) {
        if (pollEvents != 0) {
            finishConnecting();
        }
        return;
    }
    if (!m_isOpen) {
        return;
    }
    mosquitto* const client = m_client.get();
    // Publishing may have closed it.
    int code = mosquitto_socket(client) < 0 ? MOSQ_ERR_CONN_LOST : MOSQ_ERR_SUCCESS;
    if (code == MOSQ_ERR_SUCCESS && (pollEvents & ~POLLOUT) != 0) {
        acknowledgeAtOnce(mosquitto_socket(client));
        code = mosquitto_loop_read(client, 1);
    }
    if (code == MOSQ_ERR_SUCCESS && mosquitto_want_write(client)) {
        code = mosquitto_loop_write(client, 1);
    }
    if (code == MOSQ_ERR_SUCCESS) {
        code = mosquitto_loop_misc(client);
    }
    if (code != MOSQ_ERR_SUCCESS || mosquitto_socket(client) < 0) {
        m_isOpen = false;
        handle(code);
    }
    if (m_thrown != nullptr) {
        std::rethrow_exception(std::exchange(m_thrown, nullptr));
    }
}

void Client::handle(int code) {
    const std::string why = m_disconnectReason >= MQTT_RC_UNSPECIFIED
                                ? mosquitto_reason_string(m_disconnectReason)
                                : explained(code == MOSQ_ERR_SUCCESS ? MOSQ_ERR_CONN_LOST : code);
    reportLoss(why);
}

std::string Client::explained(int code) const {
    return code == MOSQ_ERR_TLS && !m_errors.empty() ? "TLS: " + m_errors : errorText(code);
}

void Client::reportLoss(const std::string& why) {
    if (!m_wasRefused) {
        m_listener.disconnected(why, m_disconnectReason);
    }
}

int Client::publish(const Publication& what, const Properties& properties) {
    int number = 0;
    checkRequest("publish to '" + what.topic + "'",
                 mosquitto_publish_v5(m_client.get(), &number, what.topic.c_str(),
                                      static_cast<int>(what.payload.size()), what.payload.data(), what.qos,
                                      what.retained, properties.list()));
    return number;
}

int Client::subscribe(const std::string& filter, int qos, int options) {
    int number = 0;
    checkRequest("subscribe to '" + filter + "'",
                 mosquitto_subscribe_v5(m_client.get(), &number, filter.c_str(), qos, options, nullptr));
    return number;
}

void Client::disconnect(int reason) {
    mosquitto_disconnect_v5(m_client.get(), reason, nullptr);
}

} // namespace mqtt
