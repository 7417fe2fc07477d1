// The interface between commands, the launcher's loop and the two kinds of bus: emulated and USB/IP.
//
// For the launcher's thread only.
#pragma once

#include "control/roster.h"
#include "control/seed.h"
#include "model/model.h"

#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <poll.h>

namespace emulator {

class Bus : public Roster {
public:
    using NamedCounts = std::vector<std::pair<std::string, std::uint64_t>>;

    // ---- readers
    // Add an unplugged reader and return its number. Numbers count from 1. Throws TextError if the bus does
    // not support such a reader.
    virtual std::size_t add(ReaderDescription description) = 0;

    // Undo the last add() of a reader that is not plugged.
    virtual void removeLast() = 0;

    virtual bool plugged(std::size_t number) const = 0;

    // Throws TextError if the bus has no room for these readers together. They are not plugged.
    virtual void checkRoom(const std::vector<std::size_t>& numbers) const = 0;

    // Throw TextError if the bus is full, if the reader is in the wanted state already, or if a program does
    // not read its udev events.
    virtual void plug(std::size_t number) = 0;
    virtual void unplug(std::size_t number) = 0;

    // Where programs find a plugged reader: bus and address, or its USB/IP bus ID.
    virtual std::string place(std::size_t number) const = 0;

    // Run an action on a reader's model, then deliver the transfers that it completed.
    template <typename Action>
    auto with(std::size_t number, Action action) {
        using Result = decltype(action(std::declval<ReaderModel&>()));
        if constexpr (std::is_void_v<Result>) {
            onModel(number, action);
        } else {
            std::optional<Result> result;
            onModel(number, [&](ReaderModel& model) { result = action(model); });
            return std::move(*result);
        }
    }

    // The seed of all readers.
    Seed& seed() { return m_seed; }

    // ---- host
    // How often the host did what to a reader since the start.
    virtual NamedCounts counts(std::size_t number) = 0;

    // Faults of the host. Throw TextError if the host is another machine.
    virtual void setBusy(std::size_t number, bool busy) = 0;
    virtual void bindDriver(std::size_t number, const std::string& name) = 0; // "": none
    virtual void refuseOpening(std::size_t number, int error) = 0;            // 0: none
    virtual void failReset(std::size_t number, bool fails) = 0;

    // ---- launcher's loop
    virtual void addPolled(std::vector<pollfd>& descriptors) = 0;

    // Do what is due. The descriptors that addPolled() added start at `polled[first]`.
    virtual void serve(const std::vector<pollfd>& polled, std::size_t first) = 0;

    // When to call serve() even if no descriptor is ready.
    virtual std::optional<Time> nextDeadline() = 0;

protected:
    virtual void onModel(std::size_t number, const std::function<void(ReaderModel&)>& action) = 0;

private:
    Seed m_seed;
};

} // namespace emulator
