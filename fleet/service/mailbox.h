// Hands things over to a thread that polls descriptors.
#pragma once

#include <cerrno>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

namespace fleet {

template <class Thing>
class Mailbox {
public:
    Mailbox()
        : m_descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (m_descriptor < 0) {
            throw std::system_error(errno, std::generic_category(), "eventfd");
        }
    }
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;
    ~Mailbox() { ::close(m_descriptor); }

    // Readable while there is something to take.
    int descriptor() const { return m_descriptor; }

    void put(Thing thing) {
        bool wasEmpty = false;
        {
            const std::lock_guard lock(m_mutex);
            wasEmpty = m_things.empty();
            m_things.push_back(std::move(thing));
        }
        if (wasEmpty) {
            static_cast<void>(::eventfd_write(m_descriptor, 1));
        }
    }

    std::vector<Thing> take() {
        eventfd_t count = 0;
        static_cast<void>(::eventfd_read(m_descriptor, &count));
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_things, {});
    }

private:
    const int m_descriptor;
    std::mutex m_mutex;
    std::vector<Thing> m_things;
};

} // namespace fleet
