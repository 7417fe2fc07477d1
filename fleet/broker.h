// Which broker to use, and how to prove who one is.
#pragma once

#include <cstdint>
#include <string>

#include <CLI/CLI.hpp>

namespace fleet {

struct BrokerAddress {
    std::string host;
    std::uint16_t port = 0;
    bool tls = false;
};

struct BrokerOptions {
    std::string address = {}; // [mqtt://|mqtts://]HOST[:PORT]
    std::string caFile = {};  // empty: the system's certification authorities
    std::string certificate = {};
    std::string key = {};
    std::string user = {};
    std::string passwordFile = {};
    bool insecure = false; // permits a connection without TLS to another machine
};

// Parse an address. Throws std::invalid_argument with a text for people. Without a scheme, TLS is on unless the host is a
// loopback address. An address "mqtt://" of another machine needs `insecure`.
BrokerAddress parseBrokerAddress(const std::string& text, bool insecure);

// "HOST:PORT", with an IPv6 address in brackets.
std::string hostAndPort(const BrokerAddress& address);

// "localhost", 127.0.0.0/8 and ::1.
bool isLoopback(const std::string& host);

// Read a password or the like: the file's first line. "credential:NAME" names a file in $CREDENTIALS_DIRECTORY.
// Throws std::runtime_error.
std::string readSecret(const std::string& file);

// The path of a file that may be given as "credential:NAME". Throws std::runtime_error without $CREDENTIALS_DIRECTORY.
std::string credentialPath(const std::string& file);

// Add the options that say how to connect; not the address.
void addBrokerOptions(CLI::App& app, BrokerOptions& options);

} // namespace fleet
