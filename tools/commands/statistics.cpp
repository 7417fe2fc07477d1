#include "commands/statistics.h"

#include <algorithm>

void ExchangeTimes::add(double milliseconds) {
    m_times.push_back(milliseconds);
    m_isSorted = false;
}

const std::vector<double>& ExchangeTimes::sorted() const {
    if (!m_isSorted) {
        std::ranges::sort(m_times);
    }
    m_isSorted = true;
    return m_times;
}

double ExchangeTimes::minimum() const {
    return sorted().front();
}

double ExchangeTimes::median() const {
    const std::vector<double>& times = sorted();
    const std::size_t middle = times.size() / 2;
    return times.size() % 2 != 0 ? times[middle] : (times[middle - 1] + times[middle]) / 2;
}

double ExchangeTimes::percentile(unsigned int percent) const {
    const std::vector<double>& times = sorted();
    const std::size_t rank = (times.size() * percent + 99) / 100;
    return times[std::clamp<std::size_t>(rank, 1, times.size()) - 1];
}

double ExchangeTimes::maximum() const {
    return sorted().back();
}
