#include "commands/standard_input.h"

#include "failure.h"

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include <unistd.h>

StandardInput::StandardInput(const Interruption& interruption, Wait wait)
    : m_interruption(interruption)
    , m_wait(std::move(wait)) {
}

bool StandardInput::isTerminal() {
    return ::isatty(STDIN_FILENO) != 0;
}

// Wait for more input. Returns false if there is no more.
bool StandardInput::fill() {
    std::array<pollfd, 2> waited = {{{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0},
                                     {.fd = m_interruption.descriptor(), .events = POLLIN, .revents = 0}}};
    m_wait(waited);
    if (m_interruption.requested()) {
        return false;
    }
    std::array<char, 4096> chunk{};
    const ssize_t count = ::read(STDIN_FILENO, chunk.data(), chunk.size());
    if (count < 0) {
        throw Failure(std::string("standard input: ") + std::generic_category().message(errno));
    }
    m_buffer.append(chunk.data(), static_cast<std::size_t>(count));
    return count > 0;
}

std::optional<std::string> StandardInput::nextLine() {
    for (;;) {
        const std::size_t end = m_buffer.find('\n');
        if (m_interruption.requested()) {
            return std::nullopt;
        }
        if (end != std::string::npos) {
            std::string line = m_buffer.substr(0, end);
            m_buffer.erase(0, end + 1);
            return line;
        }
        if (m_atEnd || !fill()) {
            m_atEnd = true;
            if (m_buffer.empty() || m_interruption.requested()) {
                return std::nullopt;
            }
            return std::exchange(m_buffer, {}); // a last line without a line break
        }
    }
}
