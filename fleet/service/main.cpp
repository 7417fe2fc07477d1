#include "fleet/mqtt/client.h"
#include "fleet/service/configuration.h"
#include "fleet/service/log.h"
#include "fleet/service/service.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include <sys/signalfd.h>

namespace {

constexpr int failed = 1;
constexpr int wrongConfiguration = 2;

constexpr const char* description = "Offer the USB RFID readers of this machine over an MQTT 5 broker.";

constexpr const char* footer = R"(
Passwords and keys are read from files. As a service of systemd, give credential:NAME instead of a path for
what the unit loads by LoadCredential=NAME.

While the service runs, it has the readers open, and no other program can use them.

EXIT STATUS
  0  ended by SIGTERM or SIGINT
  1  failure; the log says why
  2  invalid command line or configuration

EXAMPLES
  gvusb-mqtt --broker localhost --state-directory /tmp
  gvusb-mqtt --broker mqtts://broker.example.org --user gate-1 --password-file /etc/gavo/password
)";

std::string versions() {
    return "gvusb-mqtt " GVUSB_PROJECT_VERSION " (" + mqtt::libraryVersion() + ')';
}

// Signals arrive at a descriptor instead. To be called before there are other threads.
int signalDescriptor() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const int descriptor = ::signalfd(-1, &signals, SFD_CLOEXEC);
    if (descriptor < 0) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    return descriptor;
}

void serve(fleet::Configuration configuration) {
    const int signals = signalDescriptor();
    fleet::Service service(std::move(configuration));
    service.run(signals);
    if (service.isConnecting()) {
        std::_Exit(0);
    }
}

} // namespace

int main(int count, char** arguments) {
    std::signal(SIGPIPE, SIG_IGN);
    try {
        fleet::Configuration configuration;
        CLI::App app(description, "gvusb-mqtt");
        app.set_version_flag("--version", versions,
                             "Print the versions of the service and of libmosquitto, and exit");
        app.footer(footer);
        fleet::addOptions(app, configuration);
        try {
            app.parse(count, arguments);
            fleet::complete(configuration);
        } catch (const CLI::ParseError& error) {
            if (error.get_exit_code() == 0) {
                return app.exit(error); // prints the help or the version
            }
            service_log::error(error.what() + std::string("; see gvusb-mqtt --help"));
            return wrongConfiguration;
        } catch (const std::invalid_argument& error) {
            service_log::error(error.what());
            return wrongConfiguration;
        }
        if (configuration.check) {
            return 0;
        }
        serve(std::move(configuration));
        return 0;
    } catch (const std::exception& error) {
        service_log::error(error.what());
        return failed;
    }
}
