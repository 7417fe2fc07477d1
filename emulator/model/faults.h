// What goes wrong with a reader, on demand: per pipe, and for some of its standard requests.
//
// Plain values; whoever owns them guards them.
#pragma once

#include "model/transfer.h"

#include <algorithm>
#include <optional>
#include <set>

namespace emulator {

// A way that bytes go: an endpoint with its direction, or one of the three uses of endpoint 0.
enum class Pipe : std::uint16_t {
    control = 0x000,         // every control transfer, the two below included
    controlFrameOut = 0x100, // frames to the reader by vendor request
    controlFrameIn = 0x180,  // answers from the reader by vendor request
};

constexpr Pipe pipeOf(std::uint8_t endpoint) {
    return static_cast<Pipe>(endpoint);
}

struct PipeFaults {
    bool mute = false;    // nothing is answered; transfers wait until they are cancelled
    bool stalled = false; // on a bulk pipe until the halt is cleared
    bool stuck = false;   // clearing the halt does not help
    Milliseconds delay{0};
    std::optional<std::size_t> shortTo = std::nullopt; // at most that many bytes are moved

    // Both at once, for a control frame, which is also a control transfer.
    PipeFaults with(const PipeFaults& other) const {
        PipeFaults both = *this;
        both.mute |= other.mute;
        both.stalled |= other.stalled;
        both.delay = std::max(delay, other.delay);
        if (other.shortTo) {
            both.shortTo = std::min(shortTo.value_or(*other.shortTo), *other.shortTo);
        }
        return both;
    }
};

struct RequestFaults {
    std::set<std::uint8_t> unreadableStrings;
    bool refusesConfiguration = false;
};

} // namespace emulator
