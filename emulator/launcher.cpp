#include "launcher.h"

#include "preload_contract.h"
#include "program.h"
#include "program_file.h"
#include "scratch_folder.h"
#include "session.h"
#include "usbfs/virtual_bus.h"
#include "usbip/bus.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include <unistd.h>

namespace emulator {

namespace {

namespace fs = std::filesystem;

constexpr int outOfReach = 126;

constexpr const char* preloadVariable = "LD_PRELOAD";
constexpr const char* pythonVariable = "PYTHONPATH";
constexpr const char* sanitizerVariable = "ASAN_OPTIONS";
constexpr const char* libraryConfigurationVariable = "GVUSB_CONFIG";
constexpr std::string_view preloadName = "libgvusb-emulate-preload.so";

// The entries of LD_PRELOAD except the emulator's own.
std::string foreignPreloads() {
    const char* value = std::getenv(preloadVariable);
    std::string kept;
    std::string text = value != nullptr ? value : "";
    std::ranges::replace(text, ' ', ':');
    for (const std::string& entry : splitEscaped(text, ':')) {
        if (!entry.empty() && !entry.ends_with(preloadName)) {
            kept += (kept.empty() ? "" : ":") + entry;
        }
    }
    return kept;
}

// In a build folder it lies beside the launcher, when installed in the library folder.
fs::path findPreload() {
    const fs::path launcher = fs::read_symlink("/proc/self/exe");
    const std::array candidates = {launcher.parent_path() / preloadName,
                                   launcher.parent_path().parent_path() / GVUSB_EMULATE_PRELOAD_FOLDER /
                                       preloadName};
    for (const fs::path& candidate : candidates) {
        if (fs::exists(candidate)) {
            return candidate;
        }
    }
    throw std::runtime_error(candidates.front().string() + ": no such file");
}

// The address sanitizer of gcc refuses to run behind a preloaded library, although it works there.
std::string sanitizerOptions() {
    const char* const options = std::getenv(sanitizerVariable);
    return (options != nullptr ? options + std::string(":") : std::string()) + "verify_asan_link_order=0";
}

// The Python module for commands that play readers, in a build folder or installed.
fs::path findPythonFolder() {
    const fs::path folder = fs::read_symlink("/proc/self/exe").parent_path();
    const fs::path built = folder / "python";
    return fs::exists(built) ? built : folder.parent_path() / GVUSB_EMULATE_PYTHON_FOLDER;
}

// A command that plays a reader does not run on the bus, nor on that of a launcher around this one.
Environment logicEnvironment() {
    const std::string preloads = foreignPreloads();
    const char* const path = std::getenv(pythonVariable);
    Environment environment = {
        {preloadVariable, preloads.empty() ? std::nullopt : std::optional(preloads)},
        {pythonVariable, (path != nullptr && *path != '\0' ? std::string(path) + ":" : std::string()) +
                             findPythonFolder().string()}};
    for (const char* const name :
         {emulate_folder_variable, emulate_configuration_variable, emulate_socket_variable,
          emulate_system_calls_variable, emulate_usbip_variable}) {
        environment.emplace_back(name, std::nullopt);
    }
    return environment;
}

Environment emulatedEnvironment(const Options& options, const fs::path& folder) {
    std::string preloads = foreignPreloads();
    preloads += (preloads.empty() ? "" : ":") + findPreload().string();
    Environment environment = {{preloadVariable, preloads},
                               {sanitizerVariable, sanitizerOptions()},
                               {emulate_system_calls_variable,
                                options.trapSystemCalls ? std::optional<std::string>("trap") : std::nullopt},
                               {emulate_folder_variable, folder.string()},
                               {emulate_configuration_variable, options.configurationFile}};
    // Otherwise, the library would read the file that this variable names.
    if (options.configurationFile) {
        environment.emplace_back(libraryConfigurationVariable, std::nullopt);
    }
    return environment;
}

int launchEmulated(const Options& options, const BlockedSignals& signals) {
    if (const std::optional<std::string> reason = whyOutOfReach(options.program.front())) {
        std::cerr << "gvusb-emulate: " << *reason << ", so it would use the machine's own USB devices.\n"
                  << "Build it for shared libraries, attach the readers with --usbip instead, or, if it uses "
                     "no USB "
                     "device, start it from a shell.\n";
        return outOfReach;
    }
    const ScratchFolder folder;
    VirtualBus bus(folder.path());
    Session session(options, signals, bus, (folder.path() / "commands").string(), logicEnvironment());
    return session.run(emulatedEnvironment(options, folder.path()));
}

// Without a program, a line on standard output shows where to send commands.
int launchUsbip(const Options& options, const BlockedSignals& signals) {
    const ScratchFolder folder;
    const std::string socket = (folder.path() / "commands").string();
    const auto report = [verbose = options.verbose](const char* complaint) {
        if (verbose) {
            std::cerr << "gvusb-emulate: disconnected a USB/IP client: " << complaint << '\n';
        }
    };
    auto made = std::make_unique<UsbipBus>(*options.usbip, report, options.usbipLimits);
    Session session(options, signals, *made, socket, logicEnvironment());
    // Destroyed before the session, which waits for every process of the program: a process can hang in the
    // kernel until the reader that it has attached answers or disappears.
    const std::unique_ptr<UsbipBus> bus = std::move(made);
    if (!options.program.empty()) {
        return session.run({{emulate_usbip_variable, bus->address()}});
    }
    std::cout << "gvusb-emulate: USB/IP at " << bus->address() << ", commands at " << emulate_socket_variable
              << '=' << socket << std::endl; // NOLINT(performance-avoid-endl): scripts wait for the line
    return session.runAlone();
}

} // namespace

int launch(const Options& options) {
    if (options.replay) {
        for (const std::string& note : options.replay->recording->notes) {
            std::cerr << "gvusb-emulate: " << options.replay->recording->name << ": " << note << '\n';
        }
    }
    const BlockedSignals signals;
    allowManyDescriptors();
    return options.usbip ? launchUsbip(options, signals) : launchEmulated(options, signals);
}

} // namespace emulator
