// Faults of single transfers on a pipe: of the n-th from now on, or of some by chance.
//
// What happens to a transfer is decided when it is submitted, so it depends on the order of the transfers on this pipe
// and on the seed, but not on time. One thread at a time; the owner guards them.
#pragma once

#include "model/draws.h"
#include "model/text.h"
#include "model/time_range.h"

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace emulator {

struct TransferFault {
    enum class Kind { stall, mute, corrupt, delay };
    Kind kind = Kind::stall;
    TimeRange time; // of a delay

    // "stall", "mute", "corrupt", "delay:MS" or "delay:MIN-MAX". Throws TextError.
    static TransferFault parse(std::string_view text);

    bool needsDraw() const { return kind == Kind::corrupt || time.needsDraw(); }
};

// In thousandths of a percent, up to 100'000.
using Chance = std::uint32_t;

// A number from 0 to 100 with up to three decimal places. Throws TextError.
Chance parseChance(std::string_view text);

// What happens to one transfer.
struct TransferFate {
    bool stalls = false;
    bool mute = false; // stays unanswered, and what it would move is lost
    std::optional<std::uint64_t> corruption = std::nullopt; // decides which byte arrives changed, and how
    Time::duration delay{0};

    // Both combined, for a control frame, which is also a control transfer.
    void add(const TransferFate& other);

    // Change one byte, if the fate says so and there is one.
    void corrupt(Bytes& data) const;
};

class TransferFaults {
public:
    // The n-th transfer from now on, counted from 1.
    void failNth(std::uint64_t n, const TransferFault& fault) { m_counted.push_back({n, fault}); }
    void failNone() { m_counted.clear(); }

    // Replaces the chance of the same kind of fault.
    void setChance(Chance chance, const TransferFault& fault);
    void clearChances() { m_chances.clear(); }

    // The fate of the next transfer. `seed` is used when something is drawn for the first time.
    TransferFate next(std::uint64_t seed);

private:
    struct Counted {
        std::uint64_t left = 0;
        TransferFault fault;
    };
    struct Chanced {
        Chance chance = 0;
        TransferFault fault;
    };

    Draws& draws(std::uint64_t seed);
    void apply(const TransferFault& fault, TransferFate& fate, std::uint64_t seed);

    std::vector<Counted> m_counted;
    std::vector<Chanced> m_chances;
    std::optional<Draws> m_draws;
};

} // namespace emulator
