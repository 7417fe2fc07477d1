// What the service is told by its command line and its configuration file.
#pragma once

#include "fleet/broker.h"
#include "fleet/topics.h"

#include <cstddef>
#include <cstdint>
#include <string>

#include <CLI/CLI.hpp>

namespace fleet {

struct Configuration {
    BrokerOptions broker;
    std::string machine; // default: the host name
    std::string prefix = defaultPrefix;
    std::string stateDirectory; // default: $STATE_DIRECTORY or /var/lib/gvusb-mqtt
    unsigned int keepAliveSeconds = 10;
    std::uint32_t sessionExpirySeconds = 3600;
    std::size_t queue = 32;
    std::size_t maxPayload = 65536;
    std::size_t remember = 4096;
    bool check = false;
};

// Add all options, and --config for a file with the same ones.
void addOptions(CLI::App& app, Configuration& configuration);

// Fill in the defaults that depend on the machine, and check what the options alone do not. Throws std::invalid_argument.
void complete(Configuration& configuration);

} // namespace fleet
