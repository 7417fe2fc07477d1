// Replaces operator new of the test program: counts allocations and makes a chosen one fail.
//
// Counters and planned failures are per thread.
#pragma once

#include <cstddef>

// clang's thread sanitizer links its own operator new, which cannot be replaced.
#ifdef __has_feature
#if __has_feature(thread_sanitizer)
#define GVUSB_TEST_KEEPS_SANITIZER_NEW 1
#endif
#endif

namespace support {

// If false, nothing is counted and nothing fails. A test that relies on either begins with
//   if (!allocationsAreWatched) { GTEST_SKIP() << "the sanitizer replaces operator new"; }
#ifdef GVUSB_TEST_KEEPS_SANITIZER_NEW
inline constexpr bool allocationsAreWatched = false;
#else
inline constexpr bool allocationsAreWatched = true;
#endif

// The number of allocations by operator new (all forms) that this thread has requested, including failed
// ones:
//   const std::size_t before = allocations();
//   transmit();
//   EXPECT_EQ(allocations() - before, 0u);
std::size_t allocations();

// Keeps a planned failure active. Only one per thread at a time.
class [[nodiscard]] AllocationFailure {
public:
    explicit AllocationFailure(std::size_t n);
    ~AllocationFailure();
    AllocationFailure(const AllocationFailure&) = delete;
    AllocationFailure& operator=(const AllocationFailure&) = delete;

    // Whether n allocations were requested, so that the n-th one failed.
    bool happened() const;
};

// Make the n-th allocation of this thread from now on (1 is the next) throw std::bad_alloc once; a nothrow
// form returns null. For sweeps:
//   for (std::size_t n = 1;; ++n) {
//       const auto failure = failAllocation(n);
//       try { run(); } catch (const std::bad_alloc&) {}
//       if (!failure.happened()) break;
//   }
AllocationFailure failAllocation(std::size_t n);

// Exempts this thread's allocations from counting and failing. The stand-ins use it for their own
// allocations.
class [[nodiscard]] AllocationPause {
public:
    AllocationPause();
    ~AllocationPause();
    AllocationPause(const AllocationPause&) = delete;
    AllocationPause& operator=(const AllocationPause&) = delete;
};

} // namespace support
