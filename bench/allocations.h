// The program's own malloc and its kin, which count.
#pragma once

#include <cstddef>

struct Allocations {
    std::size_t count = 0; // made since the start
    std::size_t bytes = 0; // in use
};

Allocations allocations() noexcept;
