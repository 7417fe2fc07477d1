#include "fleet/command.h"
#include "fleet/mqtt/client.h"
#include "fleet/topics.h"
#include "program.h"

#include <string>

#include <gvusb.h>

namespace {

constexpr const char* description = "Work with the USB RFID readers of other machines over an MQTT 5 broker.";

constexpr const char* conventions = R"(
Each machine runs gvusb-mqtt. Run 'gvusb --broker ADDRESS COMMAND --help' for more about a command.

A reader is named by its machine and its device ID, as in gate-7/1A2B3C. If a machine has several readers
with one device ID, the place on the bus follows it, as in gate-7/1A2B3C@1-2.3: 'list' shows the names.

Without mqtt:// or mqtts://, the connection uses TLS unless HOST is a loopback address. The ports are 1883
and, with TLS, 8883. The password is in a file, not on the command line.
)";

constexpr const char* statuses = R"(
An answer that does not come in time is a time-out. A reader that its machine does not have, and a machine
that no service takes requests for, are missing. Everything else is a failure.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb --broker mqtt://localhost list
  gvusb --broker broker.example.com --user desk --password-file desk.secret send gate-7/1A2B3C 0200
)";

std::string versions() {
    return "gvusb " + std::string(GVUSB_GetDLLVersion()) + " (" + mqtt::libraryVersion() + ')';
}

const CLI::Validator isPrefix(
    [](std::string& text) {
        return fleet::isPrefix(text) ? std::string{} : "'" + text + "' is not the beginning of a topic";
    },
    "");

ExitStatus run(int count, char** arguments) {
    FleetOptions options;
    ExitStatus status = ExitStatus::failure;
    CLI::App app(description, "gvusb --broker ADDRESS");
    app.set_version_flag("--version", versions,
                         "Print the versions of the library and of libmosquitto, and exit");
    addFleetOptions(app, options);
    app.get_option("--broker")->required();
    app.get_option("--prefix")->check(isPrefix);
    app.footer(joinSections({conventions, outputConventions, exitStatusHelp, statuses, examples}));
    for (const auto add :
         {addFleetList, addFleetInfo, addFleetGet, addFleetSet, addFleetSend, addFleetMonitor}) {
        add(app, options, status);
    }
    return runCommand(app, status, count, arguments);
}

} // namespace

int main(int count, char** arguments) {
    return runProgram(run, count, arguments);
}
