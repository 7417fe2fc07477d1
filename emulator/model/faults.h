// The faults of a reader, for each pipe and for some standard requests.
//
// One thread at a time; the owner guards them.
#pragma once

#include "model/transfer.h"

#include <algorithm>
#include <optional>
#include <set>

namespace emulator {

// An endpoint with its direction, or one of three uses of endpoint 0.
enum class Pipe : std::uint16_t {
    control = 0x000,         // every control transfer, including the two below
    controlFrameOut = 0x100, // frames to the reader by vendor request
    controlFrameIn = 0x180,  // answers from the reader by vendor request
};

constexpr Pipe pipeOf(std::uint8_t endpoint) {
    return static_cast<Pipe>(endpoint);
}

struct PipeFaults {
    bool mute = false;    // transfers wait until they are cancelled
    bool stalled = false; // transfers stall; clearing the halt ends it
    bool stuck = false;   // clearing the halt does not end the stall
    Milliseconds delay{0};
    std::optional<std::size_t> shortTo = std::nullopt; // how many bytes a transfer moves at most

    // Both combined, for a control frame, which is also a control transfer.
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
