// The exported functions as calls that a schedule can contain, with their results as text.
#pragma once

#include <array>
#include <string>
#include <vector>

namespace schedules {

// What a call acts on: a reader, its handle if it is open, and its device ID.
struct Target {
    int handle = 0;
    unsigned devId = 0;
};

// The readers of a run. The second one is closed if the case has one reader.
using Targets = std::array<Target, 2>;

// A handle as text that does not depend on the order in which handles were given out.
std::string handleText(int handle, const Targets& targets);

struct Call {
    const char* name; // of the function, and what distinguishes this call from others of the same
    std::string (*run)(const Target& target, const Targets& targets);
    // In parallel mode, what it gives on a reader that another thread closes once it has found the reader.
    const char* whenClosed = nullptr;
    // For a call that is several steps in parallel mode, or is several calls: the same, but pause() between the steps.
    std::string (*runInSteps)(const Target& target, const Targets& targets) = nullptr;
    bool canBeEnded = false; // by "CANCEL"
    bool endsCalls = false;  // is "CANCEL"
    bool isSeveralCalls = false;
};

const std::vector<Call>& calls();

} // namespace schedules
