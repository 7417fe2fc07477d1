// What is explored: two calls at the same time on one reader or on two, with nothing or a change of the bus beside them.
#pragma once

#include "calls.h"
#include "scheduler.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace schedules {

enum class Readers { one, two };
enum class Beside { nothing, poll, departure, comeback, callback };

struct Case {
    const Call* first;
    const Call* second; // on the same reader or on the other one
    Readers readers;
    Beside beside;

    // Such as "Transceive+CloseDevice/one/departure".
    [[nodiscard]] std::string name() const;
};

const std::vector<Case>& cases();

struct Run {
    // All that the program can see: the results of the calls, the lists and the events afterwards.
    std::string seen;
    // What must never happen; empty if nothing did.
    std::string mistakes;
    std::size_t libusbCalls = 0; // while the calls were running
};

// Unload the library that was loaded at the program's start, and load it again, with no run in between.
void unloadFirst();
void loadLast();

// Load the library with this configuration, run the case once and unload the library. The bus changes before libusb is called
// for the `changeAt`-th time, or when the third thread has its turn, whichever comes first.
Run runOnce(const Case& which, const std::string& configuration, Decider& decider, const StuckHandler& stuck,
            std::size_t changeAt = SIZE_MAX);

} // namespace schedules
