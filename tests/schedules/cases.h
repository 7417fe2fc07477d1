// What is explored: two calls at the same time on one reader or on two, with nothing or a change of the bus beside them.
#pragma once

#include "calls.h"
#include "scheduler.h"

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace schedules {

// Which readers are open: the first one, both, or the first one while the scan list is empty.
enum class Readers { one, two, unlisted };
enum class Beside { nothing, poll, departure, comeback, secondComeback, callback };

struct Case {
    const Call* first;
    const Call* second; // on the same reader or on the other one
    Readers readers;
    Beside beside;

    // Such as "Transceive+CloseDevice/one/departure".
    [[nodiscard]] std::string name() const;
};

const std::vector<Case>& cases();

// The rules that a run keeps.
enum class Mode { usual, parallel };

// All that the program can see.
struct Seen {
    std::array<std::string, 2> results; // of the calls
    std::string afterwards;             // the lists and the events

    auto operator<=>(const Seen&) const = default;
};

struct Run {
    Seen seen;
    // What must never happen; empty if nothing did.
    std::string mistakes;
    std::size_t libusbCalls = 0; // while the calls were running
};

// Unload the library that was loaded at the program's start, and load it again, with no run in between.
void unloadFirst();
void loadLast();

// A model that a run is compared with.
struct Model {
    // The bus changes before libusb is called for the `changeAt`-th time, or when the third thread has its turn, whichever
    // comes first.
    std::size_t changeAt = SIZE_MAX;
    bool inOrder = false; // the calls run one after the other, those of several steps step by step
};

// Load the library, run the case once and unload the library.
Run runOnce(const Case& which, Mode mode, Decider& decider, const StuckHandler& stuck,
            const Model& model = {});

std::string text(const Case& which, const Seen& seen);

} // namespace schedules
