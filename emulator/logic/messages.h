// The lines of JSON between the launcher and the command that plays a reader.
//
// Plain functions; any thread may call them.
#pragma once

#include "model/description.h"
#include "model/reader_logic.h"
#include "model/transfer.h"

#include <optional>
#include <string>
#include <string_view>

namespace emulator {

// In the first line. A later version of the launcher may add lines and keys without changing it.
constexpr int logicVersion = 1;

// ---- to the command, each with its line end
std::string helloLine(const ReaderDescription& reader, std::size_t number);
std::string frameLine(std::uint64_t number, std::uint8_t endpoint, const Bytes& frame);
std::string eventLine(ReaderEvent event, std::uint8_t value);
std::string lostEventsLine(std::uint64_t count);

// ---- from the command
// What a line asks for.
struct LogicAction {
    enum class Kind {
        send,    // `frame` to the program
        stall,   // the next transfer of the pipes that `text` names
        command, // `text`, a command of gvusb-emulate
        plug,
        unplug,
        log // `text`, on standard error
    };
    Kind kind = Kind::send;
    Milliseconds after{0};
    Bytes frame = {};
    std::optional<bool> byControl = std::nullopt; // none: as the reader's endpoints are
    std::string text = {};
};

// `number` is the reader's. Throws TextError.
LogicAction parseLogicLine(std::string_view line, std::size_t number);

} // namespace emulator
