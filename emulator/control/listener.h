// A listening socket that keeps working when descriptors run out.
//
// For the launcher's thread only, which polls the descriptor.
#pragma once

#include "model/transfer.h"

#include <functional>
#include <optional>

#include <poll.h>

namespace emulator {

class Listener {
public:
    // How many connections one call accepts at most. Many at once must not delay other work.
    static constexpr int mostAccepted = 16;

    // Takes the ownership of a listening socket that does not block, or of -1.
    explicit Listener(int descriptor);
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener();

    int descriptor() const { return m_descriptor; }
    pollfd polled() const;
    bool ready(const pollfd& polled, Time now) const {
        return polled.revents != 0 || (m_pausedUntil && *m_pausedUntil <= now);
    }

    // Pass the descriptor of each waiting connection to `take`. If there is no descriptor left, `closeOne` closes
    // one and returns true, or returns false. Then the connection is closed.
    void accept(Time now, const std::function<void(int)>& take, const std::function<bool()>& closeOne);

    // When to poll again after a lack of descriptors that closing could not end.
    std::optional<Time> nextDeadline() const { return m_pausedUntil; }

private:
    bool refuseOne();

    int m_descriptor;
    int m_reserve; // closed to accept a connection that is closed at once
    std::optional<Time> m_pausedUntil;
};

} // namespace emulator
