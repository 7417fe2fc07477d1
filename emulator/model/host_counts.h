// How often the host did what to a reader since the start.
//
// One thread at a time; the owner guards it.
#pragma once

#include <cstdint>

namespace emulator {

struct HostCounts {
    std::uint64_t opens = 0;
    std::uint64_t closes = 0;
    std::uint64_t claims = 0;
    std::uint64_t releases = 0;
    std::uint64_t clearHalts = 0;
    std::uint64_t resets = 0;
    std::uint64_t setConfigurations = 0;
    std::uint64_t driverDetaches = 0;
    std::uint64_t transfers = 0;
    std::uint64_t cancels = 0;
};

} // namespace emulator
