// Tells a process from its forked children, which have a copy of every object, but none of the threads, and locks that
// nobody will ever release.
#pragma once

#include <sys/types.h>

class OwnProcess {
public:
    OwnProcess() noexcept;
    ~OwnProcess();
    OwnProcess(const OwnProcess&) = delete;
    OwnProcess& operator=(const OwnProcess&) = delete;

    // Whether this is the process that built the object.
    [[nodiscard]] bool isCurrent() const noexcept;

private:
    // A page that the kernel clears in every child. The process ID alone is not enough: the first process of a container
    // may have the ID that its parent has outside. Null where the kernel is older than 4.14.
    unsigned char* const m_mark;
    const pid_t m_id;
};
