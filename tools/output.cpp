#include "output.h"

#include "failure.h"

#include <cerrno>
#include <system_error>

#include <sys/ioctl.h>
#include <unistd.h>

namespace output {

void print(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(descriptor(), text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EPIPE) {
            throw Closed();
        } else if (errno != EINTR) {
            throw Failure(std::string("standard output: ") + std::generic_category().message(errno));
        }
    }
}

bool isTerminal() {
    return ::isatty(descriptor()) != 0;
}

std::size_t width() {
    constexpr std::size_t usualWidth = 80;
    winsize size = {};
    const bool isKnown = ::ioctl(descriptor(), TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
    return isKnown ? size.ws_col : usualWidth;
}

} // namespace output
