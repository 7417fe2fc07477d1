#include "mutex_probe.h"

#include <gtest/gtest.h>

namespace {

struct Wrapper {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

} // namespace

TEST(MutexProbeTest, DetectsAMutexHeldByTheCallingThreadAndDoesNotChangeIt) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    EXPECT_FALSE(support::isHeld(mutex));
    EXPECT_FALSE(support::isHeld(mutex));
    pthread_mutex_lock(&mutex);
    EXPECT_TRUE(support::isHeld(mutex));
    pthread_mutex_unlock(&mutex);
    EXPECT_FALSE(support::isHeld(mutex));
    pthread_mutex_destroy(&mutex);
}

TEST(MutexProbeTest, DetectsAHeldMutexInAWrapper) {
    Wrapper wrapper;
    EXPECT_FALSE(support::isHeld(wrapper));
    pthread_mutex_lock(&wrapper.mutex);
    EXPECT_TRUE(support::isHeld(wrapper));
    pthread_mutex_unlock(&wrapper.mutex);
    pthread_mutex_destroy(&wrapper.mutex);
}
