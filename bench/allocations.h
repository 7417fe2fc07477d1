// The allocations of this program, counted by its own malloc() family.
#pragma once

#include <cstddef>

struct Allocations {
    std::size_t count = 0; // since the start
    std::size_t bytes = 0; // in use
};

Allocations allocations() noexcept;
