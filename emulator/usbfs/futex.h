// Waiting for a word of shared memory to change.
#pragma once

#include <climits>
#include <cstdint>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace emulator {

inline void wakeAll(std::uint32_t& word) {
    ::syscall(SYS_futex, &word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

// Until the word is no longer `seen`, somebody wakes it, or the time of the monotonic clock. Null: no limit.
inline void waitForChange(std::uint32_t& word, std::uint32_t seen, const timespec* until) {
    ::syscall(SYS_futex, &word, FUTEX_WAIT_BITSET, seen, until, nullptr, FUTEX_BITSET_MATCH_ANY);
}

} // namespace emulator
