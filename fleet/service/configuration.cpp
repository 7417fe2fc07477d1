#include "fleet/service/configuration.h"

#include <array>
#include <cstdlib>
#include <stdexcept>

#include <unistd.h>

namespace fleet {
namespace {

constexpr const char* configurationFile = "/etc/gavo/gvusb-mqtt.conf";
constexpr const char* defaultStateDirectory = "/var/lib/gvusb-mqtt";

std::string environment(const char* name) {
    const char* const value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): before there are threads
    return value == nullptr ? std::string{} : value;
}

std::string hostName() {
    std::array<char, 256> name{};
    return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : std::string{};
}

} // namespace

void addOptions(CLI::App& app, Configuration& configuration) {
    app.allow_config_extras(CLI::config_extras_mode::error);
    app.set_config("--config", configurationFile, "Read options from this file, one NAME=VALUE per line")
        ->type_name("FILE");
    app.add_option("--broker", configuration.broker.address,
                   "The broker: [mqtt://|mqtts://]HOST[:PORT]; TLS unless it is a loopback address")
        ->type_name("ADDRESS")
        ->required();
    addBrokerOptions(app, configuration.broker);
    app.add_option("--machine", configuration.machine, "The name of this machine in topics (the host name)")
        ->type_name("NAME");
    app.add_option("--prefix", configuration.prefix, "What all topics begin with (gvusb)")
        ->type_name("PREFIX");
    app.add_option("--keep-alive", configuration.keepAliveSeconds,
                   "Seconds after which the broker misses a silent service (10)")
        ->type_name("S")
        ->check(CLI::Range(5U, 65535U).description("")); // libmosquitto accepts no fewer
    app.add_option("--session-expiry", configuration.sessionExpirySeconds,
                   "Seconds for which the broker keeps requests while the service is away (3600)")
        ->type_name("S");
    app.add_option("--queue", configuration.queue, "Requests that may wait for one reader (32)")
        ->type_name("N")
        ->check(CLI::Range(std::size_t{1}, std::size_t{10'000}).description(""));
    app.add_option("--max-payload", configuration.maxPayload,
                   "The longest payload of a request in bytes (65536)")
        ->type_name("BYTES")
        ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 24U).description(""));
    app.add_option("--remember", configuration.remember,
                   "How many of the last requests are remembered, so that none runs twice (4096)")
        ->type_name("N")
        ->check(CLI::Range(std::size_t{1}, std::size_t{10'000'000}).description(""));
    app.add_option("--state-directory", configuration.stateDirectory,
                   "Where they are remembered ($STATE_DIRECTORY, or /var/lib/gvusb-mqtt)")
        ->type_name("FOLDER");
    app.add_flag("--check", configuration.check, "Check the configuration and exit")->configurable(false);
}

void complete(Configuration& configuration) {
    if (configuration.machine.empty()) {
        configuration.machine = hostName();
    }
    if (!isMachineName(configuration.machine)) {
        throw std::invalid_argument(
            "machine name '" + configuration.machine +
            "': it has 1 to 64 bytes without blanks, '/', '+' and '#', and does not begin with '$'");
    }
    if (!isPrefix(configuration.prefix)) {
        throw std::invalid_argument("prefix '" + configuration.prefix +
                                    "': it consists of names that are separated by '/'");
    }
    if (configuration.stateDirectory.empty()) {
        configuration.stateDirectory = environment("STATE_DIRECTORY");
    }
    if (configuration.stateDirectory.empty()) {
        configuration.stateDirectory = defaultStateDirectory;
    }
    parseBrokerAddress(configuration.broker.address, configuration.broker.insecure);
}

} // namespace fleet
