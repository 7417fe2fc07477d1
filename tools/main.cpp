#include "command.h"
#include "fleet_options.h"
#include "fleet_program.h"
#include "program.h"
#include "version.h"

namespace {

constexpr const char* description =
    "Find USB RFID readers, exchange frames with them, and watch them come and go.";

constexpr const char* conventions = R"(
Run 'gvusb COMMAND --help' for more about a command.

Device IDs are hexadecimal, in upper or lower case, with or without 0x. If several readers have the same
ID, the first one on the bus is used. A USB path selects the reader at a port: usb:1-2.3 is at port 3 of the
hub at port 2 of bus 1. It stays the same when the reader is plugged in there again.

With --broker, the commands list, info, get, set, send and monitor work with the readers of all machines that
run gvusb-mqtt: see 'gvusb --broker ADDRESS --help'. The options for it stand before the command.
)";

constexpr const char* examples = R"(
EXAMPLES
  gvusb list
  gvusb send 1A2B3C 02 00 07 FF 01
  gvusb monitor --json
  gvusb doctor
  gvusb --broker mqtt://localhost list
)";

ExitStatus run(int count, char** arguments) {
    runForOtherMachines(count, arguments);
    FleetOptions fleet; // for the help
    ExitStatus status = ExitStatus::failure;
    CLI::App app(description, "gvusb");
    app.set_version_flag("--version", versions, "Print the versions of the library and of libusb, and exit");
    addFleetOptions(app, fleet);
    app.footer(joinSections({conventions, outputConventions, exitStatusHelp, examples}));
    for (const auto add :
         {addList, addInfo, addGet, addSet, addSend, addMonitor, addRecord, addShow, addExplain, addDoctor}) {
        add(app, status);
    }
    return runCommand(app, status, count, arguments);
}

} // namespace

int main(int count, char** arguments) {
    return runProgram(run, count, arguments);
}
