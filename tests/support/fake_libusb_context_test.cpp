#include "fake_libusb_test.h"

#include <thread>

namespace fake = fake_libusb;
using FakeContextTest = FakeLibusbTest;

namespace {

// Uses libusb before and after main(), as a library with a static object does.
struct Loaded {
    int initialized = libusb_init(nullptr);
    Loaded() { libusb_exit(nullptr); }
    ~Loaded() {
        libusb_init(nullptr);
        libusb_exit(nullptr);
    }
    Loaded(const Loaded&) = delete;
    Loaded& operator=(const Loaded&) = delete;
};

const Loaded loaded;

} // namespace

TEST_F(FakeContextTest, CanBeUsedBeforeMain) {
    EXPECT_EQ(loaded.initialized, 0);
}

TEST_F(FakeContextTest, UseWithoutAContextIsRecorded) {
    libusb_device** list = nullptr;
    EXPECT_EQ(libusb_get_device_list(nullptr, &list), LIBUSB_ERROR_OTHER);
    libusb_exit(nullptr);
    fake::failNext("libusb_init", LIBUSB_ERROR_NO_MEM);
    EXPECT_EQ(libusb_init(nullptr), LIBUSB_ERROR_NO_MEM);
    EXPECT_EQ(libusb_try_lock_events(nullptr), LIBUSB_ERROR_OTHER);
    EXPECT_EQ(fake::misuses(),
              (Lines{"libusb_get_device_list: there is no context", "libusb_exit: there is no context",
                     "libusb_try_lock_events: there is no context"}));
    EXPECT_EQ(libusb_init(nullptr), 0);
    EXPECT_EQ(libusb_get_device_list(nullptr, &list), 0);
    libusb_free_device_list(list, 1);
    libusb_exit(nullptr);
    EXPECT_EQ(fake::misuses().size(), 3u);
}

TEST_F(FakeContextTest, FailedInitializationLeavesNoContextEvenAfterASuccessfulOne) {
    const Context another;
    fake::failNext("libusb_init", LIBUSB_ERROR_OTHER);
    EXPECT_EQ(libusb_init(nullptr), LIBUSB_ERROR_OTHER);
    libusb_device** list = nullptr;
    EXPECT_EQ(libusb_get_device_list(nullptr, &list), LIBUSB_ERROR_OTHER);
    EXPECT_EQ(fake::misuses(), Lines{"libusb_get_device_list: there is no context"});
    fake::reset();
}

TEST_F(FakeContextTest, ExitWithDevicesStillHeldIsRecorded) {
    libusb_init(nullptr);
    libusb_device* const device = libusb_ref_device(fake::plug("dev1", fake::bulkReader()));
    libusb_exit(nullptr);
    EXPECT_EQ(fake::misuses(), Lines{"libusb_exit: dev1 is still referenced or open"});
    libusb_unref_device(device);
}

TEST_F(FakeContextTest, VersionCanBeSetWithoutACandidate) {
    const libusb_version* const usual = libusb_get_version();
    EXPECT_EQ(usual->micro, 26);
    EXPECT_STREQ(usual->rc, "");
    fake::setVersion({2, 3, 4, 5, nullptr, nullptr});
    EXPECT_EQ(libusb_get_version()->nano, 5);
    EXPECT_EQ(libusb_get_version()->rc, nullptr);
    fake::reset();
    EXPECT_EQ(libusb_get_version()->micro, 26);
}

TEST_F(FakeContextTest, EventLockBelongsToOneThread) {
    const Context context;
    EXPECT_EQ(libusb_try_lock_events(nullptr), 0);
    EXPECT_EQ(libusb_try_lock_events(nullptr), 1);
    std::thread([] {
        EXPECT_EQ(libusb_try_lock_events(nullptr), 1);
        libusb_unlock_events(nullptr);
    }).join();
    EXPECT_EQ(fake::misuses(), Lines{"libusb_unlock_events: this thread does not hold the events lock"});
    libusb_unlock_events(nullptr);
    fake::setEventsHandled(true);
    EXPECT_EQ(libusb_try_lock_events(nullptr), 1);
}

TEST_F(FakeContextTest, InterruptedEventHandlerStaysOutWhileTheWaitersLockIsHeld) {
    const Context context;
    EXPECT_EQ(libusb_event_handler_active(nullptr), 0);
    fake::setEventsHandled(true);
    EXPECT_EQ(libusb_event_handler_active(nullptr), 1);
    libusb_interrupt_event_handler(nullptr);
    EXPECT_EQ(libusb_try_lock_events(nullptr), 1);
    libusb_lock_event_waiters(nullptr);
    EXPECT_EQ(libusb_try_lock_events(nullptr), 0);
    libusb_unlock_event_waiters(nullptr);
    libusb_unlock_events(nullptr);
    EXPECT_EQ(libusb_try_lock_events(nullptr), 1);
    EXPECT_EQ(fake::misuses(), Lines());
}

TEST_F(FakeContextTest, EventLockIsReleasedAfterTheWaitersLock) {
    const Context context;
    libusb_lock_event_waiters(nullptr);
    EXPECT_EQ(libusb_try_lock_events(nullptr), 0);
    EXPECT_EQ(fake::leftovers(), "events lock: held\n"
                                 "event waiters' lock: held\n");
    libusb_unlock_events(nullptr);
    libusb_unlock_event_waiters(nullptr);
    libusb_unlock_event_waiters(nullptr);
    EXPECT_EQ(fake::misuses(),
              (Lines{"libusb_unlock_events: hangs, for this thread holds the event waiters' lock",
                     "libusb_unlock_event_waiters: this thread does not hold the event waiters' lock"}));
}

TEST_F(FakeContextTest, PollDescriptorsAreThoseThatTheTestSets) {
    const Context context;
    EXPECT_EQ(libusb_get_pollfds(nullptr), nullptr);
    fake::setPollDescriptors({3, 4});
    const libusb_pollfd** const list = libusb_get_pollfds(nullptr);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list[0]->fd, 3);
    EXPECT_EQ(list[1]->fd, 4);
    EXPECT_EQ(list[2], nullptr);
    libusb_free_pollfds(list);
}

TEST_F(FakeContextTest, WaitingWhileHoldingTheEventLockIsRecorded) {
    const Context context;
    libusb_device_handle* const handle = open(fake::plug("dev1", fake::bulkReader()));
    EXPECT_EQ(libusb_try_lock_events(nullptr), 0);
    EXPECT_EQ(readString(handle, 1), "1A2B3C");
    EXPECT_EQ(libusb_clear_halt(handle, 0x02), 0);
    libusb_close(handle);
    libusb_unlock_events(nullptr);
    EXPECT_EQ(fake::misuses(),
              (Lines{"libusb_get_string_descriptor_ascii: hangs, for this thread holds the events lock",
                     "libusb_close: hangs, for this thread holds the events lock"}));
}
