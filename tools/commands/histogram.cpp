#include "commands/histogram.h"

#include "table.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>

namespace {

constexpr std::size_t mostRows = 10;

struct Row {
    double from;
    double to;
    std::size_t count;
};

std::string rangeText(const Row& row) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%9.3f to %9.3f ms", row.from, row.to);
    return text.data();
}

// Rows of the same length up to the 99th percentile, and one for the rest.
std::vector<Row> rowsOf(const std::vector<double>& times) {
    const std::size_t common = std::max<std::size_t>(1, (times.size() * 99 + 99) / 100);
    const double first = times.front();
    const double last = times[common - 1];
    std::vector<Row> rows;
    auto begin = times.begin();
    const auto end = times.begin() + static_cast<std::ptrdiff_t>(common);
    const std::size_t count = first == last ? 1 : mostRows - 1;
    const double step = (last - first) / static_cast<double>(count);
    for (std::size_t i = 0; i < count; ++i) {
        const double from = first + step * static_cast<double>(i);
        const double to = i + 1 == count ? last : from + step;
        const auto next = i + 1 == count ? end : std::lower_bound(begin, end, to);
        rows.push_back(
            {.from = from, .to = to, .count = static_cast<std::size_t>(std::distance(begin, next))});
        begin = next;
    }
    if (end != times.end()) {
        rows.push_back({.from = last, .to = times.back(), .count = times.size() - common});
    }
    return rows;
}

} // namespace

std::string histogram(const std::vector<double>& sortedMilliseconds, std::size_t width) {
    const std::vector<Row> rows = rowsOf(sortedMilliseconds);
    const std::size_t most = std::ranges::max_element(rows, {}, &Row::count)->count;
    const std::size_t used = rangeText(rows.front()).size() + std::to_string(most).size() + 4;
    const std::size_t longest = std::max<std::size_t>(10, width > used ? width - used : 0);
    std::string text;
    for (const Row& row : rows) {
        const std::size_t length = (row.count * longest + most - 1) / most;
        text += rangeText(row) + "  " + padded(std::string(length, '#'), longest) + "  " +
                std::to_string(row.count) + '\n';
    }
    return text;
}
