// The launcher's command line.
#pragma once

#include "control/script.h"
#include "model/description.h"
#include "replay/replay.h"
#include "usbip/address.h"
#include "usbip/server.h"

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace emulator {

struct Options {
    std::vector<ReaderDescription> readers;
    std::optional<replay::Settings> replay; // what the readers do
    Script script;
    std::optional<std::string> configurationFile; // for the program instead of the installed one; "": no file
    bool lenient = false;              // the script may fail, and the program may differ from the recording
    std::optional<std::uint64_t> seed; // of everything that is random
    bool verbose = false;
    std::optional<std::string> command; // to send to a running bus; nothing else is done
    std::optional<SocketAddress> usbip; // where to serve the readers, instead of on an emulated bus
    usbip::Limits usbipLimits;
    unsigned killAfter = 5; // seconds after a signal to end, if the program has not ended by then; 0: never
    bool trapSystemCalls = false; // serve those that bypass the C library
    bool waitForAll = false; // wait for processes that the program leaves behind, instead of killing them
    std::vector<std::string> program; // may be empty only with `usbip`
};

// Return the options, or the exit status after --help, --version or a mistake, whose text has been printed.
std::variant<Options, int> readOptions(int count, const char* const* arguments);

} // namespace emulator
