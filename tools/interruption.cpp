#include "interruption.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <system_error>

#include <sys/eventfd.h>
#include <unistd.h>

namespace {

std::atomic<bool> isRequested = false;
std::atomic<int> wakeUp = -1;
std::atomic<const char*> notice = nullptr;

void handleSignal(int) {
    const int error = errno;
    const std::uint64_t one = 1;
    isRequested = true;
    if (const char* const text = notice) {
        [[maybe_unused]] const ssize_t printed = ::write(STDERR_FILENO, text, std::strlen(text));
    }
    [[maybe_unused]] const ssize_t written = ::write(wakeUp, &one, sizeof one);
    errno = error;
}

void setAction(void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

} // namespace

Interruption::Interruption() {
    wakeUp = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeUp < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    setAction(handleSignal);
}

Interruption::~Interruption() {
    setAction(SIG_DFL);
    ::close(wakeUp.exchange(-1));
}

bool Interruption::requested() const {
    return isRequested;
}

int Interruption::descriptor() const {
    return wakeUp;
}

Interruption::Notice::Notice(const char* text) {
    notice = text;
}

Interruption::Notice::~Notice() {
    notice = nullptr;
}
