#include "model/time_range.h"

namespace emulator {

namespace {

constexpr std::uint64_t longestTime = 3'600'000;

} // namespace

TimeRange TimeRange::parse(std::string_view what, std::string_view text) {
    const auto dash = text.find('-');
    const std::string_view last = dash == std::string_view::npos ? text : text.substr(dash + 1);
    TimeRange range;
    range.shortest = Milliseconds(number(what, text.substr(0, dash), 0, longestTime));
    range.longest = Milliseconds(number(what, last, 0, longestTime));
    if (range.longest < range.shortest) {
        throw TextError(std::string(what) + " must be MIN-MAX with MIN not above MAX, not '" +
                        std::string(text) + "'");
    }
    return range;
}

Time::duration TimeRange::draw(Draws& draws) const {
    using std::chrono::microseconds;
    if (!needsDraw()) {
        return shortest;
    }
    const auto lowest = static_cast<std::uint64_t>(microseconds(shortest).count());
    const auto highest = static_cast<std::uint64_t>(microseconds(longest).count());
    return microseconds(draws.between(lowest, highest));
}

} // namespace emulator
