#include "commands/exchange.h"

#include <algorithm>
#include <chrono>

#include <gvusb.h>

namespace {

// Larger than any answer: one that does not fit is lost.
constexpr std::size_t longestAnswer = 65536;

} // namespace

Exchanger::Exchanger(int handle)
    : handle_(handle)
    , buffer_(longestAnswer) {
}

Exchanger::Result Exchanger::exchange(const Bytes& frame) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const int count =
        GVUSB_Transceive(handle_, GVUSB_PROTOCOL, 0, frame.data(), static_cast<unsigned int>(frame.size()),
                         buffer_.data(), static_cast<unsigned int>(buffer_.size()));
    const std::chrono::duration<double, std::milli> time = Clock::now() - start;
    Result result{.code = std::min(count, 0), .answer = {}, .milliseconds = time.count()};
    if (count > 0)
        result.answer.assign(buffer_.begin(), buffer_.begin() + count);
    return result;
}
