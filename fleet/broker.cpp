#include "fleet/broker.h"

#include <array>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace fleet {
namespace {

constexpr std::string_view plainScheme = "mqtt://";
constexpr std::string_view tlsScheme = "mqtts://";
constexpr std::uint16_t plainPort = 1883;
constexpr std::uint16_t tlsPort = 8883;

[[noreturn]] void reject(const std::string& address, const std::string& why) {
    throw std::invalid_argument("broker address '" + address + "': " + why);
}

std::optional<std::uint16_t> parsePort(std::string_view text) {
    std::uint16_t port = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, port);
    return error == std::errc{} && stop == end && port != 0 ? std::optional(port) : std::nullopt;
}

// Split "HOST[:PORT]" or "[IPV6][:PORT]". The port is empty if there is none.
struct HostAndPort {
    std::string_view host;
    std::optional<std::string_view> port;
};

HostAndPort split(const std::string& address, std::string_view text) {
    if (text.starts_with('[')) {
        const std::size_t end = text.find(']');
        if (end == std::string_view::npos) {
            reject(address, "']' is missing");
        }
        const std::string_view rest = text.substr(end + 1);
        if (!rest.empty() && !rest.starts_with(':')) {
            reject(address, "only ':' and a port may follow ']'");
        }
        return {text.substr(1, end - 1), rest.empty() ? std::nullopt : std::optional(rest.substr(1))};
    }
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos) {
        return {text, std::nullopt};
    }
    if (text.find(':', colon + 1) != std::string_view::npos) {
        reject(address, "put an IPv6 address into brackets");
    }
    return {text.substr(0, colon), text.substr(colon + 1)};
}

} // namespace

bool isLoopback(const std::string& host) {
    if (host == "localhost") {
        return true;
    }
    in_addr address = {};
    if (::inet_pton(AF_INET, host.c_str(), &address) == 1) {
        constexpr std::uint32_t loopbackNetwork = 127;
        return ntohl(address.s_addr) >> 24U == loopbackNetwork;
    }
    in6_addr address6 = {};
    return ::inet_pton(AF_INET6, host.c_str(), &address6) == 1 && IN6_IS_ADDR_LOOPBACK(&address6);
}

BrokerAddress parseBrokerAddress(const std::string& text, bool insecure) {
    std::string_view rest = text;
    const bool isPlain = rest.starts_with(plainScheme);
    const bool isTls = rest.starts_with(tlsScheme);
    if (isPlain || isTls) {
        rest.remove_prefix(isPlain ? plainScheme.size() : tlsScheme.size());
    } else if (const std::size_t end = rest.find("://"); end != std::string_view::npos) {
        reject(text, "the scheme is '" + std::string(rest.substr(0, end)) + "', not mqtt or mqtts");
    }
    if (rest.ends_with('/')) {
        rest.remove_suffix(1);
    }
    const auto [host, portText] = split(text, rest);
    if (host.empty()) {
        reject(text, "the host is missing");
    }
    if (host.find_first_of("/@?# ") != std::string_view::npos) {
        reject(text, "'" + std::string(host) + "' is not a host name");
    }
    BrokerAddress address;
    address.host = host;
    address.tls = isTls || (!isPlain && !insecure && !isLoopback(address.host));
    if (!address.tls && !insecure && !isLoopback(address.host)) {
        reject(text, "a connection without TLS to another machine needs --insecure");
    }
    address.port = address.tls ? tlsPort : plainPort;
    if (portText) {
        const auto port = parsePort(*portText);
        if (!port) {
            reject(text, "'" + std::string(*portText) + "' is not a port (1 to 65535)");
        }
        address.port = *port;
    }
    return address;
}

std::string hostAndPort(const BrokerAddress& address) {
    const bool isNumeric6 = address.host.find(':') != std::string::npos;
    return (isNumeric6 ? '[' + address.host + ']' : address.host) + ':' + std::to_string(address.port);
}

std::string credentialPath(const std::string& file) {
    constexpr std::string_view prefix = "credential:";
    if (!file.starts_with(prefix)) {
        return file;
    }
    const char* const folder = std::getenv("CREDENTIALS_DIRECTORY"); // NOLINT(concurrency-mt-unsafe)
    if (folder == nullptr) {
        throw std::runtime_error("'" + file +
                                 "': there is no CREDENTIALS_DIRECTORY; systemd sets it for LoadCredential=");
    }
    return std::string(folder) + '/' + file.substr(prefix.size());
}

std::string readSecret(const std::string& file) {
    const std::string path = credentialPath(file);
    std::ifstream stream(path);
    std::string line;
    if (!stream || (!std::getline(stream, line) && !stream.eof())) {
        throw std::runtime_error("'" + path + "' cannot be read");
    }
    if (line.ends_with('\r')) {
        line.pop_back();
    }
    return line;
}

void addBrokerOptions(CLI::App& app, BrokerOptions& options) {
    app.add_option("--ca-file", options.caFile,
                   "Certificates that are trusted, instead of those of the system (PEM)")
        ->type_name("FILE");
    CLI::Option* certificate =
        app.add_option("--certificate", options.certificate, "The certificate to show to the broker (PEM)")
            ->type_name("FILE");
    CLI::Option* key =
        app.add_option("--key", options.key, "The private key of the certificate (PEM)")->type_name("FILE");
    certificate->needs(key);
    key->needs(certificate);
    CLI::Option* user =
        app.add_option("--user", options.user, "The user name for the broker")->type_name("NAME");
    app.add_option("--password-file", options.passwordFile, "A file with the password in its first line")
        ->type_name("FILE")
        ->needs(user);
    app.add_flag("--insecure", options.insecure, "Permit a connection without TLS to another machine");
}

} // namespace fleet
