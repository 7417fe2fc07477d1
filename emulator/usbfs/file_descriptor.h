// Owns a file descriptor.
//
// One thread at a time.
#pragma once

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

#include <unistd.h>

namespace emulator {

class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int descriptor)
        : m_descriptor(descriptor) {}

    // Throws std::system_error with `what` if the call that returned the descriptor has failed.
    FileDescriptor(int descriptor, const std::string& what)
        : m_descriptor(descriptor) {
        if (descriptor < 0) {
            throw std::system_error(errno, std::generic_category(), what);
        }
    }
    FileDescriptor(FileDescriptor&& other) noexcept
        : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    ~FileDescriptor() { reset(); }

    void reset() {
        if (m_descriptor >= 0) {
            ::close(std::exchange(m_descriptor, -1));
        }
    }
    int get() const { return m_descriptor; }
    explicit operator bool() const { return m_descriptor >= 0; }

private:
    int m_descriptor = -1;
};

} // namespace emulator
