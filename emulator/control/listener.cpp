#include "control/listener.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace emulator {

namespace {

constexpr Milliseconds pause(100);

int openReserve() {
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool lacksDescriptors(int error) {
    return error == EMFILE || error == ENFILE;
}

} // namespace

Listener::Listener(int descriptor)
    : m_descriptor(descriptor)
    , m_reserve(openReserve()) {
}

Listener::~Listener() {
    for (const int descriptor : {m_descriptor, m_reserve}) {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    }
}

pollfd Listener::polled() const {
    return {.fd = m_pausedUntil ? -1 : m_descriptor, .events = POLLIN, .revents = 0};
}

void Listener::accept(Time now, const std::function<void(int)>& take, const std::function<bool()>& closeOne) {
    m_pausedUntil.reset();
    for (int count = 0; count < mostAccepted; ++count) {
        const int descriptor = ::accept4(m_descriptor, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        const int error = errno;
        if (descriptor >= 0) {
            take(descriptor);
        } else if (lacksDescriptors(error)) {
            if (!closeOne() && !refuseOne()) {
                m_pausedUntil = now + pause;
                return;
            }
        } else if (error == ENOBUFS || error == ENOMEM) {
            m_pausedUntil = now + pause;
            return;
        } else if (error != ECONNABORTED && error != EINTR) {
            return;
        }
    }
}

// False if another thread has taken the reserve.
bool Listener::refuseOne() {
    if (m_reserve >= 0) {
        ::close(m_reserve);
    }
    const int descriptor = ::accept4(m_descriptor, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    const bool lacks = descriptor < 0 && lacksDescriptors(errno);
    if (descriptor >= 0) {
        ::close(descriptor);
    }
    m_reserve = openReserve();
    return !lacks;
}

} // namespace emulator
