// Replaces operator new of the test program: counts allocations and makes a chosen one fail.
//
// Counters and the planned failure belong to the calling thread; other threads neither see nor disturb them.
#pragma once

#include <cstddef>

// clang's thread sanitizer links operator new of its own, which cannot be replaced.
#ifdef __has_feature
#if __has_feature(thread_sanitizer)
#define GVUSB_TEST_KEEPS_SANITIZER_NEW 1
#endif
#endif

namespace support {

// Where false, nothing is counted and nothing fails: a test that stands on it says
//   if (!allocationsAreWatched) { GTEST_SKIP() << "operator new is the sanitizer's"; }
#ifdef GVUSB_TEST_KEEPS_SANITIZER_NEW
inline constexpr bool allocationsAreWatched = false;
#else
inline constexpr bool allocationsAreWatched = true;
#endif

// Allocations by operator new (all forms) that this thread has asked for so far, failed ones too:
//   const std::size_t before = allocations();
//   transmit();
//   EXPECT_EQ(allocations() - before, 0u);
std::size_t allocations();

// While it lives, the planned failure is in force. Only one per thread at a time.
class [[nodiscard]] AllocationFailure {
public:
    explicit AllocationFailure(std::size_t n);
    ~AllocationFailure();
    AllocationFailure(const AllocationFailure&) = delete;
    AllocationFailure& operator=(const AllocationFailure&) = delete;

    // Whether that many allocations were asked for, so that the last of them failed.
    bool happened() const;
};

// Makes the n-th allocation of this thread from now on (1 = the next) throw std::bad_alloc, once; a nothrow
// form returns null. For sweeps:
//   for (std::size_t n = 1;; ++n) {
//       const auto failure = failAllocation(n);
//       try { run(); } catch (const std::bad_alloc&) {}
//       if (!failure.happened()) break;
//   }
AllocationFailure failAllocation(std::size_t n);

// While it lives, this thread's allocations are neither counted nor failed. The stand-ins use it for their
// own.
class [[nodiscard]] AllocationPause {
public:
    AllocationPause();
    ~AllocationPause();
    AllocationPause(const AllocationPause&) = delete;
    AllocationPause& operator=(const AllocationPause&) = delete;
};

} // namespace support
