// Tells a process from its forked children, which have a copy of every object, but none of the threads, and
// locks that nobody will ever release.
#pragma once

#include <unistd.h>

class OwnProcess {
public:
    // Whether this is the process that built the object.
    [[nodiscard]] bool isCurrent() const noexcept { return getpid() == m_id; }

private:
    pid_t m_id = getpid();
};
