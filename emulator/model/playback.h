// A recording that decides what a reader does, as the model sees it. Faults that commands set come on top.
//
// The model calls it in whatever thread owns the model at that time.
#pragma once

#include "model/transfer.h"

#include <cstdint>
#include <optional>

namespace emulator {

// How a transfer completes.
struct PlayedAnswer {
    bool byModel = false; // as with a reader that is not played: a standard request
    bool pending = false; // not at all: it stays until it is canceled
    Time due = {};
    int status = 0;         // 0 or a negative errno
    Bytes data = {};        // may lack the end, which is zero
    std::size_t actual = 0; // bytes transferred, in either direction
};

// What the host does besides transfers.
enum class HostAction {
    open,
    claim,        // of an interface
    release,      // of an interface
    setInterface, // of an interface
    detachDriver, // of an interface
    attachDriver, // of an interface
    setConfiguration,
    clearHalt, // of an endpoint
    reset,
};

class Playback {
public:
    Playback() = default;
    Playback(const Playback&) = delete;
    Playback& operator=(const Playback&) = delete;
    virtual ~Playback() = default;

    // Whether the transfer reads what the reader sends, instead of asking for something itself.
    virtual bool reads(const Transfer& transfer) const = 0;

    // A transfer that asks for something has reached the reader. Empty if it has to wait for the arrival or departure of a
    // reader; the model is advanced after that.
    virtual std::optional<PlayedAnswer> request(const Transfer& transfer, Time now) = 0;

    // Any transfer has been submitted.
    virtual void used(Time now) = 0;

    // What a transfer that reads gets next, or null if there is nothing.
    virtual const PlayedAnswer* next(const Transfer& transfer) const = 0;

    // The transfer gets it. take() is called when it is due, cancel() when the transfer has been canceled or ended before.
    virtual PlayedAnswer take(const Transfer& transfer) = 0;
    virtual PlayedAnswer cancel(const Transfer& transfer) = 0;

    // The result of an action if the recording has one: 0 or more, or a negative errno.
    virtual std::optional<int> result(HostAction action, unsigned number) = 0;

    // Send something unasked; from endpoint 0 by control transfer.
    virtual void push(std::uint8_t endpoint, Bytes data, Time now) = 0;

    // Discard what has not been read.
    virtual void forget() = 0;

    virtual void plugged() = 0;
    virtual void reset(Time now) = 0;
    virtual void haltCleared(std::uint8_t endpoint) = 0;
};

} // namespace emulator
