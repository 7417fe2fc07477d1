// Statistics of the times that exchanges took.
#pragma once

#include <cstddef>
#include <vector>

class ExchangeTimes {
public:
    void add(double milliseconds);

    std::size_t count() const { return m_times.size(); }

    // All of these need at least one time. The median of an even number of times is the mean of the middle
    // two. The N-th percentile is the smallest time that at least N percent of the times do not exceed.
    double minimum() const;
    double median() const;
    double percentile(unsigned int percent) const;
    double maximum() const;

    // In ascending order.
    const std::vector<double>& sorted() const;

private:
    mutable std::vector<double> m_times;
    mutable bool m_isSorted = true;
};
