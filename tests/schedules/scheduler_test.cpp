#include "deciders.h"
#include "scheduler.h"

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace schedules;
using namespace std::chrono_literals;
using Bodies = std::vector<std::function<void()>>;

void fail(const std::string& why) {
    std::fprintf(stderr, "%s\n", why.c_str());
    _exit(3);
}

// Run the threads in every schedule. `before` prepares a run, and `after` looks at its result.
int exploreAll(
    unsigned preemptions, const Bodies& bodies, const std::function<void()>& before = [] {},
    const std::function<void()>& after = [] {}) {
    EverySchedule every(preemptions);
    int runs = 0;
    do {
        runControlled(
            [&] {
                before();
                explore(every, bodies);
                after();
            },
            fail);
        ++runs;
    } while (every.next());
    return runs;
}

TEST(SchedulerTest, RunsThreadsInEveryOrderWithoutPreemption) {
    std::string order;
    std::set<std::string> orders;
    const Bodies bodies = {[&] { order += "a"; }, [&] { order += "b"; }, [&] { order += "c"; }};
    exploreAll(
        0, bodies, [&] { order.clear(); }, [&] { orders.insert(order); });
    EXPECT_EQ(orders, (std::set<std::string>{"abc", "acb", "bac", "bca", "cab", "cba"}));
}

TEST(SchedulerTest, PreemptsThreadsWhereTheyYield) {
    std::string order;
    std::set<std::string> orders;
    const Bodies bodies = {[&] {
                               order += "a";
                               yield();
                               order += "A";
                           },
                           [&] {
                               order += "b";
                               yield();
                               order += "B";
                           }};
    exploreAll(
        0, bodies, [&] { order.clear(); }, [&] { orders.insert(order); });
    EXPECT_EQ(orders, (std::set<std::string>{"aAbB", "bBaA"}));
    orders.clear();
    exploreAll(
        2, bodies, [&] { order.clear(); }, [&] { orders.insert(order); });
    EXPECT_EQ(orders, (std::set<std::string>{"aAbB", "bBaA", "abAB", "abBA", "baAB", "baBA"}));
}

// Two threads read, add and write without holding the mutex in between.
TEST(SchedulerTest, FindsAnUpdateThatIsLost) {
    std::mutex mutex;
    int value = 0;
    std::set<int> results;
    const auto add = [&] {
        mutex.lock();
        const int before = value;
        mutex.unlock();
        mutex.lock();
        value = before + 1;
        mutex.unlock();
    };
    exploreAll(
        0, {add, add}, [&] { value = 0; }, [&] { results.insert(value); });
    EXPECT_EQ(results, std::set<int>{2});
    exploreAll(
        1, {add, add}, [&] { value = 0; }, [&] { results.insert(value); });
    EXPECT_EQ(results, (std::set<int>{1, 2}));
}

TEST(SchedulerTest, MutexExcludes) {
    std::mutex mutex;
    int inside = 0;
    int most = 0;
    const auto enter = [&] {
        const std::lock_guard lock(mutex);
        most = std::max(most, ++inside);
        yield();
        --inside;
    };
    EXPECT_GT(exploreAll(2, {enter, enter, enter}), 20);
    EXPECT_EQ(most, 1);
}

TEST(SchedulerDeathTest, FindsADeadlock) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::mutex first;
    std::mutex second;
    const Bodies bodies = {[&] {
                               const std::scoped_lock lock(first);
                               const std::lock_guard other(second);
                           },
                           [&] {
                               const std::scoped_lock lock(second);
                               const std::lock_guard other(first);
                           }};
    exploreAll(0, bodies);
    EXPECT_EXIT(exploreAll(1, bodies), testing::ExitedWithCode(3), "deadlock");
}

// The condition is signaled before the other thread waits for it.
TEST(SchedulerDeathTest, FindsALostWakeUp) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::mutex mutex;
    std::condition_variable condition;
    const Bodies bodies = {[&] {
                               std::unique_lock lock(mutex);
                               condition.wait(lock);
                           },
                           [&] { condition.notify_one(); }};
    EXPECT_EXIT(exploreAll(0, bodies), testing::ExitedWithCode(3), "deadlock");
}

TEST(SchedulerDeathTest, FindsThreadsThatRunWithoutEnd) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exploreAll(0, {[] {
                               for (;;) {
                                   yield();
                               }
                           }}),
                testing::ExitedWithCode(3), "without end");
}

TEST(SchedulerTest, TimePassesOnlyWhenEveryThreadWaits) {
    std::vector<std::string> order;
    const auto start = std::chrono::steady_clock::now();
    exploreAll(0,
               {[&] {
                    std::this_thread::sleep_for(3h);
                    order.emplace_back("three");
                },
                [&] {
                    const auto before = std::chrono::steady_clock::now();
                    std::this_thread::sleep_for(1h);
                    order.emplace_back("one");
                    EXPECT_EQ(std::chrono::steady_clock::now() - before, 1h);
                }},
               [&] { order.clear(); });
    EXPECT_EQ(order, (std::vector<std::string>{"one", "three"}));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1h);
}

TEST(SchedulerTest, WaitingEndsAtTheDeadline) {
    std::mutex mutex;
    std::condition_variable condition;
    exploreAll(0, {[&] {
                   std::unique_lock lock(mutex);
                   EXPECT_EQ(condition.wait_for(lock, 1h), std::cv_status::timeout);
               }});
}

TEST(SchedulerTest, CanceledThreadEndsInItsSleep) {
    exploreAll(1, {[] {
                   pthread_t sleeping = {};
                   pthread_create(
                       &sleeping, nullptr,
                       [](void*) -> void* {
                           for (;;) {
                               std::this_thread::sleep_for(1s);
                           }
                       },
                       nullptr);
                   pthread_cancel(sleeping);
                   void* result = nullptr;
                   pthread_join(sleeping, &result);
                   EXPECT_EQ(result, PTHREAD_CANCELED);
               }});
}

TEST(DecidersTest, WrittenScheduleRepeatsTheRun) {
    std::string order;
    const auto twice = [&](const char* text) {
        return [&order, text] {
            order += text;
            yield();
            order += text;
        };
    };
    const Bodies bodies = {twice("a"), twice("b"), twice("c")};
    EverySchedule every(2);
    do {
        order.clear();
        runControlled([&] { explore(every, bodies); }, fail);
        const std::string first = order;
        WrittenSchedule written(every.text());
        order.clear();
        runControlled([&] { explore(written, bodies); }, fail);
        ASSERT_EQ(order, first) << every.text();
    } while (every.next());
}

TEST(DecidersTest, RandomScheduleRepeatsWithItsSeed) {
    std::string order;
    const auto many = [&](const char* text) {
        return [&order, text] {
            for (int i = 0; i < 10; ++i) {
                order += text;
                yield();
            }
        };
    };
    const Bodies bodies = {many("a"), many("b")};
    const auto run = [&](std::uint64_t seed) {
        RandomSchedule random(seed);
        order.clear();
        runControlled([&] { explore(random, bodies); }, fail);
        return order;
    };
    std::set<std::string> different;
    for (std::uint64_t seed = 0; seed < 20; ++seed) {
        const std::string first = run(seed);
        EXPECT_EQ(run(seed), first);
        different.insert(first);
    }
    EXPECT_GT(different.size(), 5U);
}

TEST(DecidersTest, ScheduleIsNumbersAndCommas) {
    EXPECT_NO_THROW(WrittenSchedule(""));
    EXPECT_NO_THROW(WrittenSchedule("0,10,2"));
    for (const char* wrong : {"x", "1,", ",1", "1;2", "-1", "1,,2"}) {
        EXPECT_THROW(WrittenSchedule{wrong}, std::invalid_argument) << wrong;
    }
}

} // namespace
