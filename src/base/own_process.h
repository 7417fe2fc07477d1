// Distinguishes a process from its forked children. A child has a copy of every object, but no threads, and its locks may
// be held forever.
#pragma once

#include <sys/types.h>

class OwnProcess {
public:
    OwnProcess() noexcept;
    ~OwnProcess();
    OwnProcess(const OwnProcess&) = delete;
    OwnProcess& operator=(const OwnProcess&) = delete;

    // Whether this process constructed the object.
    [[nodiscard]] bool isCurrent() const noexcept;

private:
    // A page that the kernel clears in every child. The process ID is not enough: in a PID namespace of its own, a child can
    // have the same ID as its parent. Null on kernels before 4.14.
    unsigned char* const m_mark;
    const pid_t m_id;
};
