#include "manager/hotplug_queue.h"

#include "allocation_failure.h"
#include "hotplug_queue_probe.h"
#include "manager_test.h"
#include "waiting.h"

#include <atomic>
#include <csignal>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <pthread.h>

namespace fake = fake_libusb;
using testing::ElementsAre;
using testing::IsEmpty;
using waiting::eventually;

namespace {

constexpr auto arrived = LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED;
constexpr auto left = LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT;

using Report = std::pair<libusb_hotplug_event, libusb_device*>;

// The events that the queue reports.
class Reports {
public:
    explicit Reports(std::function<void(libusb_device*)> inReport = {})
        : inReport_(std::move(inReport)) {}

    static void take(void* reports, libusb_hotplug_event event, libusb_device* dev) {
        auto& self = *static_cast<Reports*>(reports);
        {
            const std::lock_guard lock(self.mutex_);
            self.all_.emplace_back(event, dev);
            self.reporters_.insert(std::this_thread::get_id());
        }
        if (self.inReport_) {
            self.inReport_(dev);
        }
    }

    std::vector<Report> all() {
        const std::lock_guard lock(mutex_);
        return all_;
    }
    std::set<std::thread::id> reporters() {
        const std::lock_guard lock(mutex_);
        return reporters_;
    }
    bool come(std::size_t count) {
        return eventually([&] { return all().size() >= count; });
    }

private:
    const std::function<void(libusb_device*)> inReport_;
    std::mutex mutex_;
    std::vector<Report> all_;
    std::set<std::thread::id> reporters_;
};

class HotPlugQueueTest : public ManagerTest {
protected:
    static libusb_device* plug(const std::string& name) { return fake::plug(name, fake::bulkReader()); }

    static bool isGivenBack(const std::string& name) {
        return eventually([&] { return fake::references(name) == 0; });
    }

    const OwnProcess process;
};

} // namespace

TEST_F(HotPlugQueueTest, ReportsEverythingInTheOrderOfPostingFromOneThread) {
    std::vector<libusb_device*> devices;
    for (int i = 0; i < 10; ++i) {
        devices.push_back(plug("dev" + std::to_string(i)));
    }
    Reports reports;
    HotPlugQueue queue(process, &Reports::take, &reports);
    std::vector<Report> posted;
    for (std::size_t i = 0; i < 500; ++i) {
        posted.emplace_back(i % 3 == 0 ? left : arrived, devices[i * i % devices.size()]);
        queue.Post(posted.back().first, posted.back().second);
        if (i % 50 == 0) {
            waiting::doze(); // let the thread report some, so that there are several batches
        }
    }
    EXPECT_TRUE(reports.come(posted.size()));
    queue.Stop();
    EXPECT_EQ(reports.all(), posted);
    EXPECT_EQ(reports.reporters().size(), 1u);
    EXPECT_FALSE(reports.reporters().contains(std::this_thread::get_id()));
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(fake::references("dev" + std::to_string(i)), 0);
    }
}

TEST_F(HotPlugQueueTest, StartsItsOneThreadWithTheFirstEventAndEndsItWhenStopped) {
    libusb_device* const dev1 = plug("dev1");
    Reports reports;
    const auto before = waiting::settledThreads();
    HotPlugQueue queue(process, &Reports::take, &reports);
    EXPECT_EQ(waiting::settledThreads(), before);
    for (std::size_t i = 1; i <= 3; ++i) {
        queue.Post(arrived, dev1);
        EXPECT_TRUE(reports.come(i));
        EXPECT_EQ(waiting::settledThreads(), before + 1);
    }
    queue.Stop();
    EXPECT_EQ(waiting::settledThreads(), before);
}

TEST_F(HotPlugQueueTest, ItsThreadBlocksSignals) {
    libusb_device* const dev1 = plug("dev1");
    sigset_t blocked;
    sigemptyset(&blocked);
    Reports reports([&](libusb_device*) { pthread_sigmask(SIG_BLOCK, nullptr, &blocked); });
    HotPlugQueue queue(process, &Reports::take, &reports);
    queue.Post(arrived, dev1);
    EXPECT_TRUE(reports.come(1));
    queue.Stop();
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM, SIGCHLD, SIGUSR1, SIGPIPE, SIGRTMIN}) {
        EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
    }
}

TEST_F(HotPlugQueueTest, PostingDoesNotWaitForReports) {
    libusb_device* const dev1 = plug("dev1");
    waiting::Turnstile turnstile;
    Reports reports([&](libusb_device*) { turnstile.pass(); });
    HotPlugQueue queue(process, &Reports::take, &reports);
    queue.Post(arrived, dev1);
    ASSERT_TRUE(turnstile.isReached());
    auto posting = std::async(std::launch::async, [&] { queue.Post(left, dev1); });
    EXPECT_EQ(posting.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    turnstile.letOneThrough();
    turnstile.letOneThrough();
    EXPECT_TRUE(reports.come(2));
    EXPECT_THAT(reports.all(), ElementsAre(Report(arrived, dev1), Report(left, dev1)));
}

TEST_F(HotPlugQueueTest, ReportMayPost) {
    libusb_device* const dev1 = plug("dev1");
    libusb_device* const dev2 = plug("dev2");
    HotPlugQueue* poster = nullptr;
    Reports reports([&](libusb_device* dev) {
        if (dev == dev1) {
            poster->Post(left, dev2);
        }
    });
    HotPlugQueue queue(process, &Reports::take, &reports);
    poster = &queue;
    queue.Post(arrived, dev1);
    EXPECT_TRUE(reports.come(2));
    EXPECT_THAT(reports.all(), ElementsAre(Report(arrived, dev1), Report(left, dev2)));
}

TEST_F(HotPlugQueueTest, KeepsADeviceUntilItIsReported) {
    libusb_device* const dev1 = plug("dev1");
    libusb_device* const dev2 = plug("dev2");
    waiting::Turnstile turnstile;
    std::atomic<int> described = 1;
    Reports reports([&](libusb_device* dev) {
        turnstile.pass();
        libusb_device_descriptor descriptor = {};
        described = libusb_get_device_descriptor(dev, &descriptor);
    });
    HotPlugQueue queue(process, &Reports::take, &reports);
    queue.Post(arrived, dev1);
    ASSERT_TRUE(turnstile.isReached());
    queue.Post(left, dev2);
    fake::unplug("dev1");
    fake::unplug("dev2");
    EXPECT_EQ(fake::references("dev1"), 1);
    EXPECT_EQ(fake::references("dev2"), 1);
    turnstile.letOneThrough();
    EXPECT_TRUE(isGivenBack("dev1"));
    EXPECT_EQ(described.exchange(1), 0);
    ASSERT_TRUE(turnstile.isReached());
    EXPECT_EQ(fake::references("dev2"), 1) << "its report is in progress";
    turnstile.letOneThrough();
    EXPECT_TRUE(isGivenBack("dev2"));
    EXPECT_EQ(described, 0);
    EXPECT_THAT(fake::misuses(), IsEmpty());
}

// The thread has already taken some of the waiting events from the queue.
TEST_F(HotPlugQueueTest, StopWaitsForTheReportInProgressAndDropsTheRest) {
    std::vector<libusb_device*> devices;
    for (int i = 0; i < 6; ++i) {
        devices.push_back(plug("dev" + std::to_string(i)));
    }
    waiting::Turnstile turnstile;
    Reports reports([&](libusb_device*) { turnstile.pass(); });
    HotPlugQueue queue(process, &Reports::take, &reports);
    queue.Post(arrived, devices[0]);
    ASSERT_TRUE(turnstile.isReached());
    for (const int i : {1, 2, 3}) {
        queue.Post(arrived, devices[static_cast<std::size_t>(i)]);
    }
    turnstile.letOneThrough();
    ASSERT_TRUE(turnstile.isReached());
    for (const int i : {4, 5}) {
        queue.Post(arrived, devices[static_cast<std::size_t>(i)]);
    }
    auto stopping = std::async(std::launch::async, [&] { queue.Stop(); });
    ASSERT_TRUE(isBeingStopped(queue, "dev5"));
    EXPECT_EQ(stopping.wait_for(std::chrono::milliseconds(10)), std::future_status::timeout);
    turnstile.letOneThrough();
    EXPECT_EQ(stopping.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    EXPECT_THAT(reports.all(), ElementsAre(Report(arrived, devices[0]), Report(arrived, devices[1])));
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(fake::references("dev" + std::to_string(i)), 0) << i;
    }
}

TEST_F(HotPlugQueueTest, DestructionStops) {
    libusb_device* const dev1 = plug("dev1");
    const auto before = waiting::settledThreads();
    Reports reports;
    {
        HotPlugQueue queue(process, &Reports::take, &reports);
        queue.Post(arrived, dev1);
        EXPECT_TRUE(reports.come(1));
    }
    EXPECT_EQ(fake::references("dev1"), 0);
    EXPECT_EQ(waiting::settledThreads(), before);
}

TEST_F(HotPlugQueueTest, EventsPostedAfterTheStopAreDropped) {
    libusb_device* const dev1 = plug("dev1");
    for (const bool used : {false, true}) {
        Reports reports;
        HotPlugQueue queue(process, &Reports::take, &reports);
        if (used) {
            queue.Post(arrived, dev1);
            EXPECT_TRUE(reports.come(1));
        }
        queue.Stop();
        queue.Stop();
        const auto before = waiting::settledThreads();
        queue.Post(left, dev1);
        EXPECT_EQ(fake::references("dev1"), 0);
        EXPECT_EQ(waiting::settledThreads(), before);
        EXPECT_EQ(reports.all().size(), used ? 1u : 0u);
    }
}

// As in a handler that calls exit(): the queue's thread stops its own queue.
TEST_F(HotPlugQueueTest, StopInsideAReportDoesNotWaitForItself) {
    libusb_device* const dev1 = plug("dev1");
    libusb_device* const dev2 = plug("dev2");
    const auto before = waiting::settledThreads();
    waiting::Turnstile turnstile;
    HotPlugQueue* stopped = nullptr;
    Reports reports([&](libusb_device*) {
        turnstile.pass();
        stopped->Stop();
        pthread_detach(pthread_self()); // no thread joins it
    });
    HotPlugQueue queue(process, &Reports::take, &reports);
    stopped = &queue;
    queue.Post(arrived, dev1);
    ASSERT_TRUE(turnstile.isReached());
    queue.Post(arrived, dev2);
    turnstile.letOneThrough();
    EXPECT_TRUE(eventually([&] { return waiting::threads() == before; }));
    EXPECT_THAT(reports.all(), ElementsAre(Report(arrived, dev1)));
    EXPECT_EQ(fake::references("dev1"), 0);
    EXPECT_EQ(fake::references("dev2"), 0);
}

TEST_F(HotPlugQueueTest, EventWithoutAThreadIsReportedWithTheNextOne) {
    libusb_device* const dev1 = plug("dev1");
    pthread_attr_t usual;
    pthread_attr_t enormous;
    ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
    ASSERT_EQ(pthread_getattr_default_np(&enormous), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&enormous, ~std::size_t{0xFFFF}), 0);
    Reports reports;
    {
        HotPlugQueue queue(process, &Reports::take, &reports);
        HotPlugQueue neverStarted(process, &Reports::take, &reports);
        ASSERT_EQ(pthread_setattr_default_np(&enormous), 0);
        queue.Post(arrived, dev1);
        neverStarted.Post(arrived, dev1);
        pthread_setattr_default_np(&usual);
        EXPECT_EQ(fake::references("dev1"), 2);
        queue.Post(left, dev1);
        EXPECT_TRUE(reports.come(2));
    }
    pthread_attr_destroy(&usual);
    pthread_attr_destroy(&enormous);
    EXPECT_THAT(reports.all(), ElementsAre(Report(arrived, dev1), Report(left, dev1)));
    EXPECT_EQ(fake::references("dev1"), 0);
}

TEST_F(HotPlugQueueTest, FailedAllocationDropsThatEventOnly) {
    if (!support::allocationsAreWatched) {
        GTEST_SKIP() << "the sanitizer replaces operator new";
    }
    libusb_device* const dev1 = plug("dev1");
    waiting::Turnstile turnstile;
    Reports reports([&](libusb_device*) { turnstile.pass(); });
    const auto before = waiting::settledThreads();
    HotPlugQueue queue(process, &Reports::take, &reports);
    // Returns whether an allocation was attempted; each one fails.
    const auto postWithoutMemory = [&](libusb_hotplug_event event) {
        const auto failure = support::failAllocation(1);
        EXPECT_NO_THROW(queue.Post(event, dev1));
        return failure.happened();
    };
    EXPECT_TRUE(postWithoutMemory(left));
    EXPECT_EQ(fake::references("dev1"), 0);
    EXPECT_EQ(waiting::settledThreads(), before);

    queue.Post(arrived, dev1);
    ASSERT_TRUE(turnstile.isReached());
    int kept = 1;
    int dropped = 0;
    while (dropped < 3) { // the queue allocates only from time to time
        if (postWithoutMemory(left)) {
            ++dropped;
            queue.Post(arrived, dev1);
        }
        ++kept;
        EXPECT_EQ(fake::references("dev1"), kept);
        ASSERT_LT(kept, 100);
    }
    queue.Post(left, dev1);
    ++kept;
    for (int i = 0; i < kept; ++i) {
        turnstile.letOneThrough();
    }
    EXPECT_TRUE(reports.come(static_cast<std::size_t>(kept)));
    queue.Stop();
    EXPECT_EQ(reports.all().size(), static_cast<std::size_t>(kept));
    EXPECT_EQ(reports.all().back(), Report(left, dev1));
    EXPECT_EQ(fake::references("dev1"), 0);
}

TEST_F(HotPlugQueueTest, ManyThreadsMayPostWhileItIsStopped) {
    constexpr std::size_t posters = 4;
    std::vector<libusb_device*> devices;
    for (std::size_t i = 0; i < posters; ++i) {
        devices.push_back(plug("dev" + std::to_string(i)));
    }
    Reports reports;
    HotPlugQueue queue(process, &Reports::take, &reports);
    std::vector<std::thread> threads;
    for (libusb_device* const device : devices) {
        threads.emplace_back([&queue, device] {
            for (int i = 0; i < 200; ++i) {
                queue.Post(i % 2 == 0 ? arrived : left, device);
            }
        });
    }
    EXPECT_TRUE(reports.come(50));
    queue.Stop();
    const std::vector<Report> reported = reports.all();
    for (std::thread& each : threads) {
        each.join();
    }
    EXPECT_EQ(reports.all(), reported) << "nothing is reported after the stop";
    for (std::size_t i = 0; i < posters; ++i) {
        libusb_hotplug_event expected = arrived; // the events of each thread stay in order
        for (const auto& [event, device] : reported) {
            if (device == devices[i]) {
                EXPECT_EQ(event, expected);
                expected = event == arrived ? left : arrived;
            }
        }
        EXPECT_EQ(fake::references("dev" + std::to_string(i)), 0);
    }
}
