// The readers that programs reach in one way or another, as the text commands and the launcher's loop see them.
//
// One thread, the launcher's, calls the members.
#pragma once

#include "model/model.h"

#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <poll.h>

namespace emulator {

class Bus {
public:
    using NamedCounts = std::vector<std::pair<std::string, std::uint64_t>>;

    Bus() = default;
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    virtual ~Bus() = default;

    // ------------------------------------------------------------------------------------------ readers
    // Adds a reader, unplugged, and returns its number. Numbers count from 1. Throws TextError where the bus
    // cannot have such a reader.
    virtual std::size_t add(ReaderDescription description) = 0;
    virtual std::size_t size() const = 0;
    virtual bool plugged(std::size_t number) const = 0;

    // Throw TextError where the bus is full, the reader is already there, or not, or a program takes no events.
    virtual void plug(std::size_t number) = 0;
    virtual void unplug(std::size_t number) = 0;

    // How programs name the place of a plugged reader.
    virtual std::string place(std::size_t number) const = 0;

    // Runs an action on a reader's model, then delivers what it completed.
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

    // ------------------------------------------------------------------------------------------- the host
    // What the host did to a reader since the start.
    virtual NamedCounts counts(std::size_t number) = 0;

    // What goes wrong on the host's side. Throw TextError where the host is another than the bus.
    virtual void setBusy(std::size_t number, bool busy) = 0;
    virtual void bindDriver(std::size_t number, const std::string& name) = 0; // empty: none
    virtual void refuseOpening(std::size_t number, int error) = 0;            // 0 lets programs in
    virtual void failReset(std::size_t number, bool fails) = 0;

    // ------------------------------------------------------------------------------------- the launcher's loop
    virtual void addPolled(std::vector<pollfd>& descriptors) = 0;

    // Takes the descriptors that addPolled() began to add at `polled[first]`, and does what is due.
    virtual void serve(const std::vector<pollfd>& polled, std::size_t first) = 0;

    // When serve() is due without any descriptor being ready.
    virtual std::optional<Time> nextDeadline() = 0;

protected:
    virtual void onModel(std::size_t number, const std::function<void(ReaderModel&)>& action) = 0;
};

} // namespace emulator
