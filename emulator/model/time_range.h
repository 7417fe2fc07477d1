// A time from which and to which a delay is drawn.
//
// Plain values; any thread may use them.
#pragma once

#include "model/draws.h"
#include "model/text.h"
#include "model/transfer.h"

#include <string_view>

namespace emulator {

struct TimeRange {
    Milliseconds shortest{0};
    Milliseconds longest{0};

    // "MIN-MAX" or "MS", in milliseconds. `what` names it in the error. Throws TextError.
    static TimeRange parse(std::string_view what, std::string_view text);

    bool needsDraw() const { return shortest != longest; }
    Time::duration draw(Draws& draws) const;
};

} // namespace emulator
