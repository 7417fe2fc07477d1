#include "commands/exchange.h"

#include "failure.h"

#include <string>

#include <gvusb.h>

namespace {

using Clock = std::chrono::steady_clock;

// A multiple of every packet size, so that the rest of a longer answer can be received.
constexpr std::size_t bufferSize = 65536;

} // namespace

Exchanger::Exchanger(int handle, unsigned int timeoutMilliseconds)
    : m_handle(handle)
    , m_timeout(timeoutMilliseconds)
    , m_buffer(bufferSize) {
    setTimeout(m_timeout);
}

void Exchanger::setTimeout(unsigned int milliseconds) {
    check("TIMEOUT", GVUSB_SetDevicePara(m_handle, "TIMEOUT", std::to_string(milliseconds).c_str()));
}

int Exchanger::receive() {
    return GVUSB_Receive(m_handle, GVUSB_PROTOCOL, m_buffer.data(),
                         static_cast<unsigned int>(m_buffer.size()));
}

Exchanger::Result Exchanger::exchange(const Bytes& frame) {
    const auto start = Clock::now();
    int count =
        GVUSB_Transceive(m_handle, GVUSB_PROTOCOL, 0, frame.data(), static_cast<unsigned int>(frame.size()),
                         m_buffer.data(), static_cast<unsigned int>(m_buffer.size()));
    Result result;
    while (count > 0) {
        result.answer.insert(result.answer.end(), m_buffer.begin(), m_buffer.begin() + count);
        if (static_cast<std::size_t>(count) < m_buffer.size()) {
            break;
        }
        count = receive();
        if (count == GVUSB_ERR_TIMEOUT) {
            count = 0; // the answer filled the buffer and had no rest
        }
    }
    if (count < 0) {
        result = {.code = count, .answer = {}, .milliseconds = 0};
    }
    result.milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    return result;
}

int Exchanger::dropAnswers(std::chrono::milliseconds wait) {
    constexpr unsigned int silence = 20;
    constexpr std::chrono::seconds longest(2); // for a reader that never stops sending
    setTimeout(static_cast<unsigned int>(wait.count()));
    const auto start = Clock::now();
    int code = receive();
    if (code > 0) {
        setTimeout(silence);
    }
    while (code > 0 && Clock::now() < start + longest) {
        code = receive();
    }
    setTimeout(m_timeout);
    // After these codes, another transfer would work without the interface.
    const bool isUnusable = code == GVUSB_ERR_CANNOT_CLAIM || code == GVUSB_ERR_NO_CONFIGURATION ||
                            code == GVUSB_ERR_CONFIG_DESCRIPTOR_READ;
    return isUnusable ? code : GVUSB_OK;
}
