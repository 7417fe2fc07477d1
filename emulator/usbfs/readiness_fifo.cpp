#include "usbfs/readiness_fifo.h"

#include <array>
#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace emulator {

namespace {

// The smallest pipe of the kernel: one page.
constexpr std::size_t pipeSize = 4096;

} // namespace

ReadinessFifo::ReadinessFifo(const std::string& file) {
    if (::mkfifo(file.c_str(), 0600) != 0) {
        throw std::system_error(errno, std::generic_category(), file);
    }
    m_descriptor = ::open(file.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (m_descriptor < 0) {
        throw std::system_error(errno, std::generic_category(), file);
    }
    if (::fcntl(m_descriptor, F_SETPIPE_SZ, static_cast<int>(pipeSize)) < 0) {
        const int error = errno;
        ::close(m_descriptor);
        throw std::system_error(error, std::generic_category(), file);
    }
    setReady(false);
}

ReadinessFifo::~ReadinessFifo() {
    ::close(m_descriptor);
}

void ReadinessFifo::setReady(bool ready) {
    if (ready == m_ready) {
        return;
    }
    m_ready = ready;
    std::array<char, pipeSize> bytes{};
    // Both move the whole page: the pipe is full before the read and empty before the write.
    [[maybe_unused]] const ssize_t moved = ready ? ::read(m_descriptor, bytes.data(), bytes.size())
                                                 : ::write(m_descriptor, bytes.data(), bytes.size());
}

} // namespace emulator
