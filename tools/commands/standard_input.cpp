#include "commands/standard_input.h"

#include "failure.h"

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include <poll.h>
#include <unistd.h>

StandardInput::StandardInput(const Interruption& interruption)
    : interruption_(interruption) {
}

// Waits for more of the input; false when there will be none.
bool StandardInput::fill() {
    std::array<pollfd, 2> waited = {{{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0},
                                     {.fd = interruption_.descriptor(), .events = POLLIN, .revents = 0}}};
    while (::poll(waited.data(), waited.size(), -1) < 0 && errno == EINTR) {
    }
    if (interruption_.wished())
        return false;
    std::array<char, 4096> chunk{};
    const ssize_t count = ::read(STDIN_FILENO, chunk.data(), chunk.size());
    if (count < 0)
        throw Failure(std::string("standard input: ") + std::generic_category().message(errno));
    buffer_.append(chunk.data(), static_cast<std::size_t>(count));
    return count > 0;
}

std::optional<std::string> StandardInput::next() {
    for (;;) {
        const std::size_t end = buffer_.find('\n');
        if (interruption_.wished())
            return std::nullopt;
        if (end != std::string::npos) {
            std::string line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            return line;
        }
        if (atEnd_ || !fill()) {
            atEnd_ = true;
            if (buffer_.empty() || interruption_.wished())
                return std::nullopt;
            return std::exchange(buffer_, {}); // a last line without an end
        }
    }
}
