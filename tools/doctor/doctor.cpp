#include "command.h"
#include "doctor/configuration.h"
#include "doctor/readers.h"
#include "doctor/udev.h"
#include "version.h"

#include <memory>

namespace doctor_command {
namespace {

constexpr const char* about = R"(
Checks the library and its configuration, udev, and every reader on the bus: whether this user may open it,
whether it has a valid device ID, and whether a kernel driver or another program is using it. Changes
nothing.
)";

constexpr const char* status1 = R"(
For this command, 0 means that there is no problem, and 1 that there is at least one.
)";

ExitStatus doctor(bool json) {
    Findings findings(json);
    findings.ok("library", versions());
    examineConfiguration(findings);
    examineUdev(findings);
    examineReaders(findings);
    findings.printEnd();
    return findings.problems() == 0 ? ExitStatus::ok : ExitStatus::failure;
}

} // namespace
} // namespace doctor_command

void addDoctor(CLI::App& app, ExitStatus& status) {
    using namespace doctor_command;
    CLI::App* command =
        app.add_subcommand("doctor", "Find what keeps readers from working, and how to fix it");
    command->footer(joinSections({about, exitStatusHelp, status1}));
    auto json = std::make_shared<bool>(false);
    command->add_flag("--json", *json, "Print an object with all findings instead of text");
    command->callback([json, &status] { status = doctor(*json); });
}
