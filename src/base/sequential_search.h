// Linear search that resumes after the previous match. Looking for all elements in their order takes one pass in total.
#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <vector>

class SequentialSearch {
public:
    // Return the index of an element that the predicate accepts. The search wraps around at the end.
    template <class T, class Predicate>
    std::optional<std::size_t> find(const std::vector<T>& all, Predicate isIt) {
        const auto start = all.begin() + static_cast<std::ptrdiff_t>(std::min(m_next, all.size()));
        auto found = std::find_if(start, all.end(), isIt);
        if (found == all.end()) {
            found = std::find_if(all.begin(), start, isIt);
            if (found == start) {
                return std::nullopt;
            }
        }
        const auto index = static_cast<std::size_t>(found - all.begin());
        m_next = index + 1;
        return index;
    }

private:
    std::size_t m_next = 0;
};
