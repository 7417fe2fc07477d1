#include "poll_timeout.h"

#include <algorithm>
#include <limits>

int millisecondsUntil(std::chrono::steady_clock::time_point time) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(time - std::chrono::steady_clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max()));
}
