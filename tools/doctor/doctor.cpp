#include "command.h"
#include "doctor/configuration.h"
#include "doctor/readers.h"
#include "doctor/udev.h"
#include "output.h"
#include "version.h"

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

ExitStatus doctor() {
    Findings findings;
    findings.ok("library", versions());
    examineConfiguration(findings);
    examineUdev(findings);
    examineReaders(findings);
    const std::size_t problems = findings.problems();
    if (problems == 0) {
        output::print("\nNo problems found.\n");
        return ExitStatus::ok;
    }
    output::print("\n" + std::to_string(problems) +
                  (problems == 1 ? " problem found.\n" : " problems found.\n"));
    return ExitStatus::failure;
}

} // namespace
} // namespace doctor_command

void addDoctor(CLI::App& app, ExitStatus& status) {
    using namespace doctor_command;
    CLI::App* command =
        app.add_subcommand("doctor", "Find what keeps readers from working, and how to fix it");
    command->footer(joinSections({about, exitStatusHelp, status1}));
    command->callback([&status] { status = doctor(); });
}
