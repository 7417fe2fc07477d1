#include "manager_test.h"

#include "captured_stdout.h"
#include "manager_lists.h"
#include "worker_sleep.h"

#include <atomic>
#include <csignal>
#include <thread>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// The worker sleeps until the test wakes it, so that the test can observe each iteration of its loop.
class WorkerTest : public ManagerTest {
protected:
    ~WorkerTest() override { GVLOG_SetLevel(0); }

    static std::size_t polls() { return fake::timesCalled("libusb_get_device_list"); }

    void restartAsleep(const std::string& configuration) {
        restart(configuration);
        sleep.waitUntilAsleep();
    }

    support::SteeredSleep sleep;
};

std::atomic<bool> handlerRan = false;
sigset_t blockedInHandler;
void noteBlockedSignals(int, unsigned int, const char*) {
    pthread_sigmask(SIG_BLOCK, nullptr, &blockedInHandler);
    handlerRan = true;
}

} // namespace

TEST_F(WorkerTest, PollsOnceAfterEachSleep) {
    restartAsleep("gvusb_hotplug=1");
    EXPECT_EQ(polls(), 0u);
    for (std::size_t turns = 1; turns <= 3; ++turns) {
        sleep.turn();
        EXPECT_EQ(polls(), turns);
    }
}

TEST_F(WorkerTest, SleepsForTheUpdateRate) {
    restartAsleep("gvusb_hotplug=1");
    sleep.turn();
    EXPECT_THAT(support::SteeredSleep::lengths(), ElementsAre(300000, 300000));
}

TEST_F(WorkerTest, SleepsForTheConfiguredRateFromTheSecondSleepAtTheLatest) {
    restartAsleep("gvusb_updaterate=4294967");
    sleep.turn();
    const auto lengths = support::SteeredSleep::lengths();
    ASSERT_EQ(lengths.size(), 2u);
    EXPECT_THAT(lengths[0], testing::AnyOf(300000u, 4294967000u)); // it starts before the file is read
    EXPECT_EQ(lengths[1], 4294967000u);
}

TEST_F(WorkerTest, NewRateAppliesFromTheNextSleep) {
    restartAsleep("gvusb_hotplug=1");
    ASSERT_EQ(GVUSB_SetDevicePara(-1, "HOTPLUG-UPDATERATE", "12345"), 0);
    EXPECT_THAT(support::SteeredSleep::lengths(), ElementsAre(300000));
    sleep.turn();
    EXPECT_THAT(support::SteeredSleep::lengths(), ElementsAre(300000, 12345));
}

TEST_F(WorkerTest, SleepsOnlyWhileItIsSuspended) {
    for (const char* configuration : {"gvusb_hotplug=0", "gvusb_hotplug=2", "gvusb_hotplug=7", "nopnp"}) {
        restartAsleep(configuration);
        sleep.turn();
        sleep.turn();
        EXPECT_EQ(polls(), 0u) << configuration;
    }
}

TEST_F(WorkerTest, IsSuspendedAndResumedByParameter) {
    restartAsleep("gvusb_hotplug=1");
    ASSERT_EQ(GVUSB_SetDevicePara(-1, "HOTPLUG-SUSPEND", "1"), 0);
    sleep.turn();
    EXPECT_EQ(polls(), 0u);
    ASSERT_EQ(GVUSB_SetDevicePara(-1, "HOTPLUG-SUSPEND", "0"), 0);
    EXPECT_EQ(polls(), 0u);
    sleep.turn();
    EXPECT_EQ(polls(), 1u);
}

TEST_F(WorkerTest, IsResumedInModesThatDoNotPoll) {
    restartAsleep("nopnp");
    ASSERT_EQ(GVUSB_SetDevicePara(-1, "HOTPLUG-SUSPEND", "0"), 0);
    sleep.turn();
    EXPECT_EQ(polls(), 1u);
}

TEST_F(WorkerTest, DoesNotPollOrSleepAfterAStopRequest) {
    restartAsleep("gvusb_hotplug=1");
    std::atomic<int> calls = 0;
    fake::setHook(
        [&](std::string_view function, std::string_view) { calls += function == "libusb_get_device_list"; });
    const int before = support::sleepsBegun();
    relaxed::store(g_GvUsbMan.m_bStopThread, true);
    sleep.wake();
    restart(quiet); // joins it
    EXPECT_EQ(calls, 0);
    sleep.waitUntilAsleep();
    EXPECT_EQ(support::sleepsBegun(), before + 1); // the new worker's
}

TEST_F(WorkerTest, LogsEachPollAtLevelThree) {
    restartAsleep("gvusb_hotplug=1");
    support::CapturedStdout output;
    GVLOG_SetLevel(3);
    sleep.turn();
    sleep.turn();
    EXPECT_THAT(output.takeLogLines(), ElementsAre("[thread] next update", "[thread] next update"));
}

TEST_F(WorkerTest, LogsNothingWhileItIsSuspended) {
    restartAsleep("nopnp");
    support::CapturedStdout output;
    GVLOG_SetLevel(3);
    sleep.turn();
    sleep.turn();
    EXPECT_THAT(output.takeLogLines(), IsEmpty());
}

TEST_F(WorkerTest, LogsNothingAtLevelTwo) {
    restartAsleep("gvusb_hotplug=1");
    support::CapturedStdout output;
    GVLOG_SetLevel(2);
    sleep.turn();
    EXPECT_THAT(output.takeLogLines(), IsEmpty());
    restart(quiet);
    EXPECT_THAT(output.takeLogLines(), ElementsAre("[exit] cleaning up ...", "[exit] ... done"));
}

TEST_F(WorkerTest, LogsItsStopAtLevelThreeBeforeTheManagerIsDone) {
    for (const char* configuration : {"gvusb_hotplug=1", "nopnp"}) {
        restartAsleep(configuration);
        support::CapturedStdout output;
        GVLOG_SetLevel(3);
        g_GvUsbMan.~GVDrvHnd();
        const auto lines = output.takeLogLines();
        GVLOG_SetLevel(0); // the next worker must not log its start
        new (&g_GvUsbMan) GVDrvHnd;
        EXPECT_THAT(lines, ElementsAre("[exit] cleaning up ...", "[thread] stop", "[exit] ... done"))
            << configuration;
    }
}

// In a separate thread, because the manager's worker starts before the level is set.
TEST_F(WorkerTest, LogsItsStartAtLevelThreeAndEndsWithoutResult) {
    restartAsleep(quiet);
    relaxed::store(g_GvUsbMan.m_bStopThread, true); // stops the function at once; the manager's worker sleeps
    for (const int level : {2, 3}) {
        support::CapturedStdout output;
        GVLOG_SetLevel(level);
        void* result = &output;
        std::thread([&] { result = GVDrvHnd::CheckDevicesThread(&g_GvUsbMan); }).join();
        EXPECT_EQ(result, nullptr);
        if (level == 3) {
            EXPECT_THAT(output.takeLogLines(), ElementsAre("[thread] start", "[thread] stop"));
        } else {
            EXPECT_THAT(output.takeLogLines(), IsEmpty());
        }
    }
}

TEST_F(WorkerTest, BlocksAllSignals) {
    restartAsleep("gvusb_hotplug=1");
    GVUSB_EVENT_INIT registration = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, noteBlockedSignals};
    ASSERT_EQ(GVUSB_AddEventHandler(0, &registration), 0);
    sigemptyset(&blockedInHandler);
    handlerRan = false;
    fake::plug("dev1", fake::bulkReader());
    sleep.turn();
    ASSERT_TRUE(handlerRan);
    for (const int signal :
         {SIGINT, SIGTERM, SIGCHLD, SIGALRM, SIGUSR1, SIGIO, SIGPIPE, SIGRTMIN, SIGRTMIN + 1}) {
        EXPECT_EQ(sigismember(&blockedInHandler, signal), 1) << signal;
    }
    sigset_t blockedHere;
    pthread_sigmask(SIG_BLOCK, nullptr, &blockedHere);
    EXPECT_EQ(sigismember(&blockedHere, SIGTERM), 0);
}

TEST_F(WorkerTest, KeepsTheLastError) {
    restartAsleep("gvusb_hotplug=1");
    fake::plug("dev1", fake::bulkReader());
    g_GvUsbMan.SetLastError(-1199);
    sleep.turn();
    EXPECT_EQ(manager_lists::lastError(), -1199);
}
