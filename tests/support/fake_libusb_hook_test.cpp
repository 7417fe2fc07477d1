#include "fake_libusb_test.h"

#include "allocation_failure.h"
#include "mutex_probe.h"

#include <atomic>
#include <new>
#include <thread>

namespace fake = fake_libusb;
using FakeHookTest = FakeLibusbTest;

TEST_F(FakeHookTest, RunsInsideEveryCallBeforeItTakesEffect) {
    std::vector<std::string> seen;
    fake::setHook([&](std::string_view function, std::string_view device) {
        seen.push_back(std::string(function) + " " + std::string(device));
        if (function == "libusb_open") {
            fake::unplug("dev1");
        }
    });
    libusb_device* const device = libusb_ref_device(fake::plug("dev1", fake::bulkReader()));
    libusb_has_capability(0);
    libusb_device_handle* handle = nullptr;
    EXPECT_EQ(libusb_open(device, &handle), LIBUSB_ERROR_NO_DEVICE);
    fake::setHook(nullptr);
    libusb_unref_device(device);
    EXPECT_EQ(seen, (Lines{"libusb_ref_device dev1", "libusb_has_capability ", "libusb_open dev1"}));
}

TEST_F(FakeHookTest, ShowsWhoHoldsAMutexDuringTheCall) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    std::vector<bool> held;
    fake::setHook([&](std::string_view, std::string_view) { held.push_back(support::isHeld(mutex)); });
    libusb_has_capability(0);
    pthread_mutex_lock(&mutex);
    libusb_has_capability(0);
    pthread_mutex_unlock(&mutex);
    libusb_has_capability(0);
    EXPECT_EQ(held, (std::vector{false, true, false}));
    fake::setHook(nullptr);
    pthread_mutex_destroy(&mutex);
}

TEST_F(FakeHookTest, MayThrowThroughTheCallThatThenHasNoEffect) {
    libusb_device* const device = fake::plug("dev1", fake::bulkReader());
    libusb_device_handle* handle = nullptr;
    fake::setHook([](std::string_view, std::string_view) { throw std::bad_alloc(); });
    EXPECT_THROW(libusb_open(device, &handle), std::bad_alloc);
    fake::setHook(nullptr);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(fake::leftovers(), "");
    libusb_close(open(device));
    EXPECT_EQ(fake::takeCalls(),
              (Lines{"libusb_open(dev1) threw", "libusb_open(dev1) = 0", "libusb_close(hnd1)"}));
}

TEST_F(FakeHookTest, DoesNotRunForItsOwnCalls) {
    int runs = 0;
    fake::setHook([&](std::string_view, std::string_view) {
        ++runs;
        libusb_has_capability(0);
    });
    libusb_has_capability(1);
    EXPECT_EQ(runs, 1);
    fake::setHook(nullptr);
}

TEST_F(FakeHookTest, CanReplaceItself) {
    fake::setHook([](std::string_view, std::string_view) { fake::setHook(nullptr); });
    EXPECT_EQ(libusb_has_capability(0), 1);
    EXPECT_EQ(libusb_has_capability(0), 1);
}

TEST_F(FakeHookTest, OwnAllocationsOfTheStandInAreNotCounted) {
    if (!support::allocationsAreWatched) {
        GTEST_SKIP() << "the sanitizer replaces operator new";
    }
    libusb_device* const device = fake::plug("dev1", fake::bulkReader());
    const std::size_t before = support::allocations();
    const auto failure = support::failAllocation(1);
    libusb_close(open(device));
    EXPECT_EQ(support::allocations() - before, 0u);
    EXPECT_FALSE(failure.happened());
}

TEST_F(FakeHookTest, ManyThreadsLeaveNothingBehind) {
    const Context context;
    for (const char* const name : {"dev1", "dev2", "dev3"}) {
        fake::plug(name, fake::bulkReader());
    }
    std::atomic<int> events = 0;
    const auto count = [](libusb_context*, libusb_device*, libusb_hotplug_event, void* counter) {
        ++*static_cast<std::atomic<int>*>(counter);
        return 0;
    };
    libusb_hotplug_callback_handle callback = 0;
    ASSERT_EQ(libusb_hotplug_register_callback(nullptr, 3, 0, -1, -1, -1, count, &events, &callback), 0);
    constexpr int threads = 4;
    constexpr int rounds = 100;
    std::vector<std::thread> running;
    for (int i = 0; i < threads; ++i) {
        running.emplace_back([&, i] {
            for (int round = 0; round < rounds; ++round) {
                // Another thread's list may still hold the device of the previous round.
                const std::string own = "own" + std::to_string(i * rounds + round);
                fake::plug(own, fake::controlReader());
                fake::fireArrived(own);
                libusb_device** list = nullptr;
                const ssize_t found = libusb_get_device_list(nullptr, &list);
                for (ssize_t each = 0; each < found; ++each) {
                    libusb_device_handle* handle = nullptr;
                    unsigned char text[16] = {};
                    if (libusb_open(list[each], &handle) == 0) {
                        libusb_get_string_descriptor_ascii(handle, 1, text, sizeof text);
                        libusb_close(handle);
                    }
                }
                libusb_free_device_list(list, 1);
                fake::unplug(own);
                fake::fireLeft(own);
            }
        });
    }
    for (std::thread& thread : running) {
        thread.join();
    }
    libusb_hotplug_deregister_callback(nullptr, callback);
    EXPECT_EQ(events, 2 * threads * rounds);
    EXPECT_EQ(fake::timesCalled("libusb_get_device_list"), static_cast<std::size_t>(threads * rounds));
    EXPECT_EQ(fake::leftovers(), "");
    EXPECT_EQ(fake::misuses(), Lines{});
}
