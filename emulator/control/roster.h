// What commands are checked against: the readers of a bus, or those that a bus will have when a script has run so far.
//
// For the launcher's thread only.
#pragma once

#include "model/description.h"

#include <cstddef>

namespace emulator {

class Roster {
public:
    Roster() = default;
    Roster(const Roster&) = delete;
    Roster& operator=(const Roster&) = delete;
    virtual ~Roster() = default;

    virtual std::size_t size() const = 0;

    // Numbers count from 1. Throws TextError.
    virtual const ReaderDescription& description(std::size_t number) const = 0;

    // Whether another machine is the host of the readers.
    virtual bool hostIsElsewhere() const = 0;

    // Throw TextError.
    void checkHostFaultsPossible() const;
    void checkPossible(const ReaderDescription& description) const;
};

} // namespace emulator
