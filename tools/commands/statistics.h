// How long exchanges took.
#pragma once

#include <cstddef>
#include <vector>

class ExchangeTimes {
public:
    void add(double milliseconds);

    std::size_t count() const { return times_.size(); }

    // Of at least one time. The median of an even number is the middle of the two in the middle; a percentile
    // is the smallest time that so many of a hundred do not exceed.
    double minimum() const;
    double median() const;
    double percentile(unsigned int percent) const;
    double maximum() const;

private:
    const std::vector<double>& sorted() const;

    mutable std::vector<double> times_;
    mutable bool isSorted_ = true;
};
