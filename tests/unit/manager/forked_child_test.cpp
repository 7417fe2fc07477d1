// A forked child has copies of the manager and its locked mutexes, but not of the threads that would unlock
// them.
#include "manager_test.h"

#include <cstdio>

#include <sys/wait.h>
#include <unistd.h>

namespace fake = fake_libusb;

namespace {

class ForkedChildTest : public ManagerTest {
protected:
    // Fork, end the child like exit() but without the leak sanitizer's check, and return the child's status.
    // The check waits for the allocator's lock, which another thread may have held during fork().
    static int exitInChild(int status) {
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            alarm(10);
            g_GvUsbMan.~GVDrvHnd();
            _exit(status);
        }
        int ended = 0;
        EXPECT_EQ(waitpid(child, &ended, 0), child);
        return ended;
    }
};

} // namespace

TEST_F(ForkedChildTest, ExitsThoughTheScanListMutexIsHeld) {
    g_GvUsbMan.m_mtxScanList.lock();
    const int ended = exitInChild(3);
    g_GvUsbMan.m_mtxScanList.unlock();
    ASSERT_TRUE(WIFEXITED(ended)) << "signal " << WTERMSIG(ended);
    EXPECT_EQ(WEXITSTATUS(ended), 3);
}

TEST_F(ForkedChildTest, ExitsThoughTheQueuesThreadIsWaiting) {
    fake::plug("dev1", fake::bulkReader());
    fake::setEventsHandled(true);
    GVDrvHnd::ExecDeviceDisconnectCallbacks(nullptr, fake::device("dev1"), LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT,
                                            &g_GvUsbMan);
    const int ended = exitInChild(4);
    ASSERT_TRUE(WIFEXITED(ended)) << "signal " << WTERMSIG(ended);
    EXPECT_EQ(WEXITSTATUS(ended), 4);
}

TEST_F(ForkedChildTest, LeavesTheReadersToItsParent) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_GT(GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr), 0);
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(10);
        const auto before = fake::timesCalled("libusb_release_interface") + fake::timesCalled("libusb_close");
        g_GvUsbMan.~GVDrvHnd();
        const auto after = fake::timesCalled("libusb_release_interface") + fake::timesCalled("libusb_close");
        _exit(after == before ? 0 : 1);
    }
    int ended = 0;
    ASSERT_EQ(waitpid(child, &ended, 0), child);
    EXPECT_TRUE(WIFEXITED(ended) && WEXITSTATUS(ended) == 0);
}
