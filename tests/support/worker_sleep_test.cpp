#include "worker_sleep.h"

#include <atomic>
#include <pthread.h>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using support::sleepsBegun;
using support::SteeredSleep;
using testing::ElementsAre;

// A thread with a loop like the worker's.
class WorkerSleep : public testing::Test {
protected:
    void runLoop() {
        thread_ = std::thread([this] {
            for (unsigned int length = 1000; !stop; ++length) {
                usleep(length);
                ++turns;
            }
        });
    }
    void end() {
        stop = true;
        sleep.wake();
        thread_.join();
    }

    SteeredSleep sleep;
    std::atomic<bool> stop = false;
    std::atomic<int> turns = 0;

private:
    std::thread thread_;
};

TEST_F(WorkerSleep, EndsOnlyOnRequest) {
    runLoop();
    sleep.waitUntilAsleep();
    EXPECT_EQ(turns, 0);
    sleep.turn();
    EXPECT_EQ(turns, 1);
    sleep.turn();
    EXPECT_EQ(turns, 2);
    EXPECT_THAT(SteeredSleep::lengths(), ElementsAre(1000, 1001, 1002));
    end();
    EXPECT_EQ(turns, 3);
}

TEST_F(WorkerSleep, CountsSleepsThatHaveBegun) {
    const int before = sleepsBegun();
    runLoop();
    sleep.waitUntilAsleep();
    EXPECT_EQ(sleepsBegun(), before + 1);
    end();
    EXPECT_EQ(sleepsBegun(), before + 1);
}

TEST_F(WorkerSleep, EndsWhenItsThreadIsCanceled) {
    pthread_t thread;
    const auto sleepForHours = [](void*) -> void* {
        usleep(4'000'000'000);
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, sleepForHours, nullptr), 0);
    sleep.waitUntilAsleep();
    pthread_cancel(thread);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST(UnsteeredSleep, IsCountedAndReal) {
    const int before = sleepsBegun();
    EXPECT_EQ(usleep(10), 0);
    EXPECT_EQ(sleepsBegun(), before + 1);
}

} // namespace
