#include "commands/exchange.h"

#include <algorithm>
#include <chrono>

#include <gvusb.h>

namespace {

// Larger than any answer and a multiple of every packet size.
constexpr std::size_t bufferSize = 65536;

} // namespace

Exchanger::Exchanger(int handle)
    : m_handle(handle)
    , m_buffer(bufferSize) {
}

Exchanger::Result Exchanger::exchange(const Bytes& frame) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const int count =
        GVUSB_Transceive(m_handle, GVUSB_PROTOCOL, 0, frame.data(), static_cast<unsigned int>(frame.size()),
                         m_buffer.data(), static_cast<unsigned int>(m_buffer.size()));
    const std::chrono::duration<double, std::milli> time = Clock::now() - start;
    Result result{.code = std::min(count, 0), .answer = {}, .milliseconds = time.count()};
    if (count > 0) {
        result.answer.assign(m_buffer.begin(), m_buffer.begin() + count);
    }
    return result;
}
