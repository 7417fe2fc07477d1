// A search for one thing after the other that mostly come in the order in which they stand: each begins behind the last
// one's find, so that all of them together go through the whole once instead of once for each.
//
// Where it begins makes no difference to what is found, so threads may share it.
#pragma once

#include "base/relaxed.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <vector>

class SequentialSearch {
public:
    // The index of what the predicate accepts, looked for to the end and then from the beginning.
    template <class T, class Predicate>
    std::optional<std::size_t> find(const std::vector<T>& all, Predicate isIt) {
        const auto start =
            all.begin() + static_cast<std::ptrdiff_t>(std::min(relaxed::load(m_next), all.size()));
        auto found = std::find_if(start, all.end(), isIt);
        if (found == all.end()) {
            found = std::find_if(all.begin(), start, isIt);
            if (found == start) {
                return std::nullopt;
            }
        }
        const auto index = static_cast<std::size_t>(found - all.begin());
        relaxed::store(m_next, index + 1);
        return index;
    }

private:
    std::size_t m_next = 0;
};
