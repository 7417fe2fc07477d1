// The requests of a recording by what they ask for.
//
// One thread at a time; the owner guards it.
#pragma once

#include "replay/recorded.h"

#include <compare>
#include <functional>
#include <map>
#include <vector>

namespace emulator::replay {

// The same request, each time that it was made.
struct Occurrences {
    std::vector<const RecordedRequest*> requests; // in order
    std::size_t next = 0;
};

// Whether a recorded request, of which perhaps not all data are known, asks for the same as a transfer.
bool isSame(const RecordedRequest& recorded, const Transfer& transfer);

// The setup packet as it goes over the bus.
std::array<std::uint8_t, 8> setupBytes(const ControlSetup& setup);

class RequestTable {
public:
    // The request must live as long as the table.
    void add(const RecordedRequest& request);

    // Null if there is none. `chain` is the number of the transfer.
    Occurrences* find(const Transfer& transfer, std::uint64_t chain);

    // A request of the table has been made.
    void noteUsed(const RecordedRequest& request);

private:
    struct Key {
        std::uint8_t endpoint = 0;
        std::array<std::uint8_t, 8> setup{};
        std::uint64_t chain = 0;
        std::size_t length = 0;
        Bytes data;

        // NOLINTNEXTLINE(modernize-use-nullptr): it takes the 0 that an ordering is compared with for a pointer
        auto operator<=>(const Key&) const = default;
    };

    static Key keyOf(const RecordedRequest& request);

    std::map<Key, Occurrences> m_whole;

    // Those of which not all data are known, by a key without data.
    std::map<Key, std::map<Bytes, Occurrences>> m_partial;
};

} // namespace emulator::replay
