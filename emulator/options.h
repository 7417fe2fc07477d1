// The launcher's command line.
#pragma once

#include "control/script.h"
#include "model/description.h"
#include "usbip/address.h"

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace emulator {

struct Options {
    std::vector<ReaderDescription> readers;
    Script script;
    std::optional<std::string>
        configurationFile; // what the program reads in its place; "" stands for no file
    bool verbose = false;
    std::optional<std::string> command; // send it to a running bus and do nothing else
    std::optional<SocketAddress> usbip; // serve the readers there, and not on a bus of the program's own
    std::vector<std::string> program;   // empty only where they are served
};

// The options, or the exit status where --help, --version or a mistake ended the matter, with its text
// printed.
std::variant<Options, int> readOptions(int count, const char* const* arguments);

} // namespace emulator
