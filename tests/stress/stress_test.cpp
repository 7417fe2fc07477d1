// Eight threads call every exported function at random while the bus changes. Nothing may crash, hang, race
// or leak, and whenever all threads pause, the library's state must be consistent.
//
// GVUSB_STRESS_CALLS in the environment is the number of calls of each test, GVUSB_STRESS_SEED the random
// seed.

#include "changing_bus.h"
#include "configuration_file.h"
#include "list_invariants.h"
#include "random_calls.h"
#include "watchdog.h"
#include "worker_sleep.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <fcntl.h>
#include <random>
#include <sched.h>
#include <unistd.h>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace stress;
using testing::IsEmpty;

namespace {

constexpr unsigned threadCount = 8;
constexpr unsigned rounds = 8; // the threads pause after each round
constexpr auto patience = std::chrono::seconds(30);

unsigned long fromEnvironment(const char* name, unsigned long otherwise) {
    const char* const text = std::getenv(name);
    return text == nullptr ? otherwise : std::strtoul(text, nullptr, 0);
}

// Discards the log.
class SilencedStdout {
public:
    SilencedStdout() {
        std::fflush(stdout);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        close(nowhere);
    }
    ~SilencedStdout() {
        std::fflush(stdout);
        dup2(original_, STDOUT_FILENO);
        close(original_);
    }
    SilencedStdout(const SilencedStdout&) = delete;
    SilencedStdout& operator=(const SilencedStdout&) = delete;

private:
    const int original_ = dup(STDOUT_FILENO);
};

// Yield to other threads in the middle of library calls.
void interrupt(std::string_view, std::string_view) {
    thread_local unsigned calls = 0;
    if (++calls % 16 == 0) {
        sched_yield();
    }
}

constexpr unsigned lastArrivalId = 0x5E;
std::atomic<int> lastArrivals = 0;

void noteLastArrival(int, unsigned devId, const char*) {
    lastArrivals += devId == lastArrivalId ? 1 : 0;
}

class StressTest : public testing::Test {
protected:
    StressTest() {
        for (unsigned i = 1; i <= threadCount; ++i) {
            callers_.emplace_back("caller " + std::to_string(i));
        }
    }

    void stressInMode(int mode) {
        support::setConfigurationText("gvusb_hotplug=" + std::to_string(mode));
        manager_lists::reload();
        stress(mode);
        support::setConfigurationText("nopnp");
        manager_lists::reload();
    }

private:
    void stress(int mode) {
        fake::recordNothing();
        const std::string atStart = fake::leftovers();
        const unsigned long seed = fromEnvironment("GVUSB_STRESS_SEED", std::random_device()() % 1'000'000);
        const unsigned long calls = fromEnvironment("GVUSB_STRESS_CALLS", 100'000);
        const unsigned long before = callCount();
        std::printf("GVUSB_STRESS_SEED=%lu\n", seed);
        std::fflush(stdout);
        const auto begin = std::chrono::steady_clock::now();

        ChangingBus bus(static_cast<unsigned>(seed));
        for (unsigned round = 0; round < rounds && !HasFailure(); ++round) {
            SCOPED_TRACE("round " + std::to_string(round));
            runRound(bus, round, static_cast<unsigned>(seed), calls / rounds / threadCount);
            checkQuietMoment(bus);
        }
        checkEnd(bus, atStart);

        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        std::printf("%lu calls, %lu events, %.1f s\n", callCount() - before, eventCount(), took.count());
        if (mode != 0) {
            EXPECT_GT(eventCount(), 0U);
        }
    }

    void runRound(ChangingBus& bus, unsigned round, unsigned seed, unsigned long calls) {
        const SilencedStdout silenced;
        GVLOG_SetLevel(round % 2 == 0 ? 0 : 3);
        fake::setHook(round % 4 < 2 ? fake::Hook(interrupt) : fake::Hook());
        const Watchdog watchdog(slots(), patience);
        std::atomic<bool> working = true;
        std::thread changing([&] {
            while (working) {
                bus.step();
                std::this_thread::sleep_for(std::chrono::microseconds(300));
            }
        });
        std::thread delivering([&] {
            while (working) {
                const Calling now(delivering_, "libusb's hot-plug callbacks");
                bus.deliver();
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        });
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < threadCount; ++i) {
            threads.emplace_back([&, i] {
                RandomCaller caller(seed + 1 + round * threadCount + i, callers_[i]);
                for (unsigned long n = 0; n < calls; ++n) {
                    caller.call();
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        working = false;
        changing.join();
        delivering.join();
        bus.calm();
        fake::setHook({});
        awaitRest();
        GVLOG_SetLevel(0);
    }

    std::vector<const Slot*> slots() const {
        std::vector<const Slot*> all = {&delivering_, &handlerSlot(), &quiet_};
        for (const Slot& caller : callers_) {
            all.push_back(&caller);
        }
        return all;
    }

    // Wait until the library's own threads are idle, without handlers that cause more work.
    void awaitRest() {
        const Calling now(quiet_, "waiting for the library's threads");
        removeHandlers();
        GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "1");
        const int sleeps = support::sleepsBegun();
        while (support::sleepsBegun() < sleeps + 2) {
            std::this_thread::yield();
        }
        if (fake::registeredCallbacks() > 0) {
            awaitQueue();
        }
    }

    // Events are reported in order, so wait for the report of a last event.
    void awaitQueue() {
        GVUSB_EVENT_INIT registration = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0,
                                         &noteLastArrival};
        GVUSB_AddEventHandler(0, &registration);
        const int before = lastArrivals;
        const std::string name = "last" + std::to_string(++lastOnes_);
        fake::plug(name, fake::bulkReader("5E"));
        fake::setEventsHandled(true);
        fake::fireArrived(name);
        fake::setEventsHandled(false);
        while (lastArrivals == before || fake::references(name) > 0) {
            std::this_thread::yield();
        }
        fake::unplug(name);
        GVUSB_DelEventHandler(0, &registration);
    }

    static void checkQuietMoment(const ChangingBus& bus) {
        manager_lists::expectConsistentLists(bus.names());
        EXPECT_THAT(fake::misuses(), IsEmpty());
        EXPECT_EQ(firstProblem(), "");
    }

    static void checkEnd(const ChangingBus& bus, const std::string& atStart) {
        for (const int devHnd : manager_lists::openHandlesInOrder()) {
            EXPECT_EQ(GVUSB_CloseDevice(devHnd), 0);
        }
        EXPECT_EQ(GVUSB_ClearScanList(), 0);
        checkQuietMoment(bus);
        EXPECT_EQ(fake::leftovers(), atStart);
        EXPECT_THAT(RandomCaller::functionsNotCalled(), IsEmpty());
    }

    std::deque<Slot> callers_;
    Slot delivering_{"hot-plug callbacks"};
    Slot quiet_{"quiet moment"};
    int lastOnes_ = 0;
};

} // namespace

TEST_F(StressTest, WithoutHotPlug) {
    stressInMode(0);
}

TEST_F(StressTest, WhilePolling) {
    stressInMode(1);
}

TEST_F(StressTest, WithLibusbsCallbacks) {
    stressInMode(2);
}

TEST(WatchdogDeathTest, HungThreadEndsTheProgramAndItsFunctionIsNamed) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const auto hang = [] {
        Slot slot("caller 1");
        const Watchdog watchdog({&slot}, std::chrono::milliseconds(100));
        const Calling now(slot, "GVUSB_Scan");
        std::this_thread::sleep_for(patience);
    };
    EXPECT_DEATH(hang(), "caller 1: GVUSB_Scan, 0 calls");
}
