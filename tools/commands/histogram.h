// A histogram of times, drawn in text.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Lines such as "0.612 to 0.655 ms   #####  12" of at most this width for sorted times, of which there must be one. The
// last line holds the slowest hundredth, so that a few slow exchanges do not press all others into one line.
std::string histogram(const std::vector<double>& sortedMilliseconds, std::size_t width);
