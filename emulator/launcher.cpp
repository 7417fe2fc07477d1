#include "launcher.h"

#include "preload_contract.h"
#include "program.h"
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

#include <sys/prctl.h>
#include <unistd.h>

namespace emulator {

namespace {

namespace fs = std::filesystem;

constexpr const char* preloadVariable = "LD_PRELOAD";
constexpr std::string_view umockdevPreload = "libumockdev-preload.so.0";
constexpr std::string_view companionPreload = "libgvusb-emulate-preload.so";

// LD_PRELOAD's entries without those of the emulator.
std::string foreignPreloads() {
    const char* value = std::getenv(preloadVariable);
    std::string kept;
    std::string text = value != nullptr ? value : "";
    std::ranges::replace(text, ' ', ':');
    for (const std::string& entry : splitEscaped(text, ':')) {
        if (!entry.empty() && !entry.ends_with(umockdevPreload) && !entry.ends_with(companionPreload)) {
            kept += (kept.empty() ? "" : ":") + entry;
        }
    }
    return kept;
}

// Beside the launcher in a build folder, in the library folder when installed.
fs::path findCompanion() {
    const fs::path launcher = fs::read_symlink("/proc/self/exe");
    const std::array candidates = {launcher.parent_path() / companionPreload,
                                   launcher.parent_path().parent_path() / GVUSB_EMULATE_PRELOAD_FOLDER /
                                       companionPreload};
    for (const fs::path& candidate : candidates) {
        if (fs::exists(candidate)) {
            return candidate;
        }
    }
    throw std::runtime_error(candidates.front().string() + " is missing");
}

Program::Environment emulatedEnvironment(const Options& options, const VirtualBus& bus,
                                         const fs::path& folder) {
    std::string preloads = foreignPreloads();
    preloads += (preloads.empty() ? "" : ":") + findCompanion().string() + ":" + std::string(umockdevPreload);
    return {{preloadVariable, preloads},
            {emulate_root_variable, bus.root()},
            {emulate_folder_variable, folder.string()},
            {emulate_configuration_variable, options.configurationFile}};
}

// umockdev makes its folder where TMPDIR says, and GLib reads the variable once.
class TemporaryFolderVariable {
public:
    // NOLINTBEGIN(concurrency-mt-unsafe): no other thread of the launcher reads the environment
    explicit TemporaryFolderVariable(const fs::path& folder) {
        if (const char* before = std::getenv(name)) {
            m_before = before;
        }
        ::setenv(name, folder.c_str(), 1);
    }
    TemporaryFolderVariable(const TemporaryFolderVariable&) = delete;
    TemporaryFolderVariable& operator=(const TemporaryFolderVariable&) = delete;
    ~TemporaryFolderVariable() {
        if (m_before) {
            ::setenv(name, m_before->c_str(), 1);
        } else {
            ::unsetenv(name);
        }
    }
    // NOLINTEND(concurrency-mt-unsafe)

private:
    static constexpr const char* name = "TMPDIR";
    std::optional<std::string> m_before;
};

int launchEmulated(const Options& options, const BlockedSignals& signals) {
    const ScratchFolder folder;
    ::unsetenv(emulate_root_variable); // NOLINT(concurrency-mt-unsafe): there is no other thread yet
    std::optional<TemporaryFolderVariable> temporary(folder.path());
    VirtualBus bus(folder.path());
    Session session(options, signals, bus, (folder.path() / "commands").string());
    temporary.reset();
    return session.run(emulatedEnvironment(options, bus, folder.path()));
}

// Without a program, the line on standard output tells where commands go.
int launchUsbip(const Options& options, const BlockedSignals& signals) {
    const ScratchFolder folder;
    const std::string socket = (folder.path() / "commands").string();
    auto made =
        std::make_unique<UsbipBus>(*options.usbip, [verbose = options.verbose](const char* complaint) {
            if (verbose) {
                std::cerr << "gvusb-emulate: a USB/IP client was ended: " << complaint << '\n';
            }
        });
    Session session(options, signals, *made, socket);
    // The bus ends first, whatever happens: the session waits for what the program leaves behind, and that may be stuck
    // in the kernel for as long as a reader that it has attached neither answers nor goes.
    const std::unique_ptr<UsbipBus> bus = std::move(made);
    if (!options.program.empty()) {
        return session.run({{emulate_usbip_variable, bus->address()}});
    }
    std::cout << "gvusb-emulate: USB/IP at " << bus->address() << ", commands at " << emulate_socket_variable
              << '=' << socket << std::endl; // NOLINT(performance-avoid-endl): somebody waits for it
    session.runAlone();
    return EXIT_SUCCESS;
}

} // namespace

void ensurePreloaded(char* const* arguments) {
    const char* value = std::getenv(preloadVariable);
    const std::string present = value != nullptr ? value : "";
    if (present.find(umockdevPreload) != std::string::npos) {
        return;
    }
    const std::string wanted = present + (present.empty() ? "" : ":") + std::string(umockdevPreload);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread yet
    if (::setenv(preloadVariable, wanted.c_str(), 1) == 0) {
        ::execv("/proc/self/exe", arguments);
    }
    throw std::system_error(errno, std::generic_category(), "/proc/self/exe");
}

int launch(const Options& options) {
    const BlockedSignals signals;
    // Every frame costs umockdev some very short sleeps; by default the kernel adds 50 microseconds to each.
    // The program inherits the setting.
    ::prctl(PR_SET_TIMERSLACK, 1);
    return options.usbip ? launchUsbip(options, signals) : launchEmulated(options, signals);
}

} // namespace emulator
