// A program that decides what a reader does with frames, as the model sees it.
//
// The model calls it in whatever thread owns the model at that time.
#pragma once

#include "model/text.h"

#include <cstdint>

namespace emulator {

// What the host did to a reader. The value that comes with it is 0 unless said.
enum class ReaderEvent {
    plugged,
    unplugged,
    opened,
    closed,
    claimed,    // the interface's number
    released,   // the interface's number
    reset,      // answers that were not read are lost
    configured, // the configuration's value
    haltCleared // the endpoint's address
};

class ReaderLogic {
public:
    ReaderLogic() = default;
    ReaderLogic(const ReaderLogic&) = delete;
    ReaderLogic& operator=(const ReaderLogic&) = delete;
    virtual ~ReaderLogic() = default;

    // Whether it takes another frame now. If not, the frame's transfer stays pending until the model advances.
    virtual bool takesFrames() const = 0;

    // `endpoint` is 0 for a frame by control transfer.
    virtual void take(std::uint8_t endpoint, const Bytes& frame) = 0;
    virtual void note(ReaderEvent event, std::uint8_t value) = 0;
};

} // namespace emulator
