// A transfer to or from a reader, and its completion.
//
// Plain values; any thread may use them.
#pragma once

#include "model/text.h"

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace emulator {

using Time = std::chrono::steady_clock::time_point;
using Milliseconds = std::chrono::milliseconds;

struct ControlSetup {
    std::uint8_t requestType = 0;
    std::uint8_t request = 0;
    std::uint16_t value = 0;
    std::uint16_t index = 0;
    std::uint16_t length = 0;

    bool in() const { return (requestType & 0x80) != 0; }
};

struct Transfer {
    std::uint8_t endpoint = 0; // with the direction bit; 0: control, with `setup`
    ControlSetup setup = {};
    Bytes data = {};          // to the reader
    std::size_t capacity = 0; // how many bytes from the reader at most
    bool zeroPacket = false;  // a zero-length packet follows data that end with a whole packet
};

enum class Outcome {
    done,
    stalled,
    overflow,  // a packet exceeded the capacity
    cancelled, // by the host
    gone,      // the reader was unplugged, reset or configured
    failed,    // on the bus
};

// The status of a URB in Linux: 0 or a negative errno. For cancelled URBs it depends on the interface.
constexpr int urbStatus(Outcome outcome, int cancelled, int failure = 0) {
    switch (outcome) {
    case Outcome::done:
        return 0;
    case Outcome::stalled:
        return -EPIPE;
    case Outcome::overflow:
        return -EOVERFLOW;
    case Outcome::cancelled:
        return cancelled;
    case Outcome::failed:
        return failure;
    case Outcome::gone:
        break;
    }
    return -ESHUTDOWN;
}

using TransferId = std::uint64_t;

struct Completion {
    TransferId id = 0;
    Outcome outcome = Outcome::done;
    Bytes data = {};        // from the reader
    std::size_t actual = 0; // bytes transferred, in either direction
    int failure = 0;        // the negative errno, if it failed on the bus
};

} // namespace emulator
