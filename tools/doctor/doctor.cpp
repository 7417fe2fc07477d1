#include "command.h"
#include "doctor/configuration.h"
#include "doctor/readers.h"
#include "doctor/udev.h"
#include "output.h"
#include "version.h"

namespace {

ExitStatus doctor() {
    Findings findings;
    findings.ok("library", versions());
    examineConfiguration(findings);
    examineUdev(findings);
    examineReaders(findings);
    const std::size_t problems = findings.problems();
    if (problems == 0) {
        output::print("\nAll is well.\n");
        return ExitStatus::ok;
    }
    output::print("\n" + std::to_string(problems) + (problems == 1 ? " problem.\n" : " problems.\n"));
    return ExitStatus::failure;
}

} // namespace

void addDoctor(CLI::App& app, Action& action) {
    CLI::App* command =
        app.add_subcommand("doctor", "Find what keeps readers from working, and name the remedy");
    command->footer(
        std::string("Looks at the library and its configuration, at udev, and at every reader on the bus: "
                    "whether this user\n"
                    "may open it, whether it tells its device ID, and whether a kernel driver or another "
                    "program has it.\n"
                    "Changes nothing.\n\n") +
        exitStatusHelp + "Here 0 means that all is well, and 1 that there is a problem.\n");
    command->callback([&action] { action = doctor; });
}
