#include "fleet_options.h"

#include <algorithm>
#include <vector>

void addFleetOptions(CLI::App& app, FleetOptions& options) {
    const std::vector<CLI::Option*> others = app.get_options();
    app.add_option("--broker", options.broker.address,
                   "The MQTT broker that the machines use: [mqtt://|mqtts://]HOST[:PORT]")
        ->type_name("ADDRESS");
    fleet::addBrokerOptions(app, options.broker);
    app.add_option("--prefix", options.prefix, "The first level of the topics (gvusb)")->type_name("PREFIX");
    app.add_option("--connect-timeout", options.connectSeconds,
                   "Seconds after which the broker counts as unreachable (10)")
        ->type_name("S")
        ->check(CLI::Range(0.001, 3600.0).description(""));
    for (CLI::Option* option : app.get_options()) {
        if (std::ranges::find(others, option) == others.end()) {
            option->group(fleetOptionsGroup);
        }
    }
}
