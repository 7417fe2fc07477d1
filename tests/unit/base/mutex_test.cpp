#include "base/mutex.h"

#include "mutex_probe.h"

#include <stdexcept>

#include <gtest/gtest.h>

namespace {

using support::isHeld;

TEST(MutexLock, HoldsTheMutexForItsScope) {
    Mutex mutex;
    {
        const MutexLock lock(mutex);
        EXPECT_TRUE(isHeld(mutex));
    }
    EXPECT_FALSE(isHeld(mutex));
}

TEST(MutexLock, UnlocksWhenAnExceptionPasses) {
    Mutex mutex;
    EXPECT_THROW(
        {
            const MutexLock lock(mutex);
            throw std::runtime_error("on the way");
        },
        std::runtime_error);
    EXPECT_FALSE(isHeld(mutex));
}

TEST(MutexLock, BlocksOtherThreads) {
    Mutex mutex;
    int shared = 0;
    const auto count = [&] {
        for (int i = 0; i < 2000; ++i) {
            const MutexLock lock(mutex);
            ++shared;
        }
    };
    std::thread other(count);
    count();
    other.join();
    EXPECT_EQ(shared, 4000);
}

TEST(Condition, WaitingReleasesTheMutex) {
    Mutex mutex;
    Condition changed;
    int value = 0;
    std::thread other([&] {
        const MutexLock lock(mutex);
        value = 1;
        changed.signal();
    });
    {
        const MutexLock lock(mutex);
        while (value == 0) {
            changed.wait(mutex);
        }
        EXPECT_TRUE(isHeld(mutex));
    }
    other.join();
    EXPECT_EQ(value, 1);
}

// Programs use the exported g_MtxEvtInitAry as a pthread_mutex_t.
TEST(Mutex, IsAPthreadMutexThatIsNotRecursive) {
    Mutex mutex;
    auto& native = reinterpret_cast<pthread_mutex_t&>(mutex);
    ASSERT_EQ(pthread_mutex_trylock(&native), 0);
    EXPECT_NE(pthread_mutex_trylock(&native), 0);
    EXPECT_TRUE(isHeld(mutex));
    EXPECT_EQ(pthread_mutex_unlock(&native), 0);
}

} // namespace
