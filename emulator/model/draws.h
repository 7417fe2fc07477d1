// Random numbers that depend on a seed only, on every machine.
//
// Plain values; any thread may use them.
#pragma once

#include <cstdint>

namespace emulator {

class Draws {
public:
    explicit Draws(std::uint64_t seed)
        : m_state(seed) {}

    // The seed of one of several independent sequences.
    static std::uint64_t derived(std::uint64_t seed, std::uint64_t which) {
        return Draws(seed ^ Draws(which).next()).next();
    }

    // SplitMix64.
    std::uint64_t next() {
        m_state += 0x9E3779B97F4A7C15;
        std::uint64_t mixed = m_state;
        mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
        return mixed ^ (mixed >> 31);
    }

    // A number from `lowest` to `highest`. Ranges are so small that the remainder is as good as uniform.
    std::uint64_t between(std::uint64_t lowest, std::uint64_t highest) {
        return lowest + next() % (highest - lowest + 1);
    }

private:
    std::uint64_t m_state;
};

} // namespace emulator
