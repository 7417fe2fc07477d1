// What a scan locks, and that it releases everything if a call fails.

#include "allocation_failure.h"
#include "list_invariants.h"
#include "manager_test.h"

#include <new>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;

namespace {

const std::vector<std::string> allNames = {"dev1", "dev2", "dev3", "dev4", "lamp"};

class DiscoverFaultsTest : public ManagerTest {
protected:
    // Replug dev1 as dev4 while it is open; dev2 is open, dev3 is closed.
    static void prepare() {
        fake::plug("dev1", fake::bulkReader("A1"));
        fake::plug("dev2", fake::bulkReader("A2"));
        fake::plug("dev3", fake::controlReader("A3"));
        fake::plug("lamp", fake::foreignDevice());
        ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
        ASSERT_GT(GVUSB_OpenDevice(0xA1), 0);
        ASSERT_GT(GVUSB_OpenDevice(0xA2), 0);
        fake::replug("dev1", "dev4");
    }

    static void expectWorking() {
        // A reader that is unplugged, or could not be reopened, keeps its handle until the application closes
        // it.
        for (const int devHnd : openHandlesInOrder()) {
            if (GVUSB_IsDevicePresent(devHnd) == 0) {
                EXPECT_EQ(GVUSB_CloseDevice(devHnd), 0);
            }
        }
        EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
        EXPECT_THAT(deviceIds(scanList()), ElementsAre(0xA2, 0xA3, 0xA1));
        for (const unsigned id : {0xA1u, 0xA2u, 0xA3u}) {
            EXPECT_EQ(GVUSB_IsDevicePresent(GVUSB_GetDeviceHnd(id)), 1) << id;
        }
        expectConsistentLists(allNames);
    }
};

} // namespace

TEST_F(DiscoverFaultsTest, BothListMutexesAreHeldFromTheEnumerationToTheEnd) {
    prepare();
    fake::takeCalls();
    std::vector<std::string> unguarded;
    std::size_t calls = 0;
    fake::setHook([&](std::string_view function, std::string_view device) {
        ++calls;
        const bool scanHeld = support::isHeld(g_GvUsbMan.m_mtxScanList);
        const bool listHeld = isGuarded(function);
        if (!scanHeld || !listHeld) {
            unguarded.push_back(std::string(function) + " of " + std::string(device));
        }
    });
    EXPECT_EQ(g_GvUsbMan.DiscoverDevices(nullptr), 3);
    fake::setHook({});
    EXPECT_THAT(unguarded, testing::IsEmpty());
    EXPECT_EQ(calls, fake::takeCalls().size());
    EXPECT_GT(calls, 20u);
    expectConsistentLists(allNames);
}

TEST_F(DiscoverFaultsTest, ScanWaitsForTheScanListMutexBeforeItTouchesTheList) {
    prepare();
    const Devices before = scanList();
    EXPECT_TRUE(waitsFor(g_GvUsbMan.m_mtxScanList, [&] { g_GvUsbMan.DiscoverDevices(nullptr); }));
    EXPECT_TRUE(waitsFor(g_GvUsbMan.m_mtxDevList, [&] { g_GvUsbMan.DiscoverDevices(nullptr); }));

    std::future<int> scan;
    {
        const MutexLock lock(g_GvUsbMan.m_mtxScanList);
        const Devices atFirst = scanList();
        scan = std::async(std::launch::async, [] { return g_GvUsbMan.DiscoverDevices(nullptr); });
        scan.wait_for(std::chrono::milliseconds(10));
        EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxDevList)) << "locked after the other one";
        EXPECT_EQ(scanList(), atFirst);
    }
    EXPECT_EQ(scan.get(), 3);
}

TEST_F(DiscoverFaultsTest, ScanHoldsTheScanListMutexWhileItWaitsForTheOther) {
    prepare();
    std::future<int> scan;
    {
        const MutexLock lock(g_GvUsbMan.m_mtxDevList);
        scan = std::async(std::launch::async, [] { return g_GvUsbMan.DiscoverDevices(nullptr); });
        while (!support::isHeld(g_GvUsbMan.m_mtxScanList)) {
            std::this_thread::yield();
        }
        EXPECT_EQ(scan.wait_for(std::chrono::milliseconds(5)), std::future_status::timeout);
    }
    EXPECT_EQ(scan.get(), 3);
}

TEST_F(DiscoverFaultsTest, EveryAllocationOfAScanMayFail) {
    if (!support::allocationsAreWatched) {
        GTEST_SKIP() << "the sanitizer replaces operator new";
    }
    for (const int level : {0, 2}) {
        SCOPED_TRACE(level);
        bool failed = true;
        std::size_t n = 1;
        for (; failed; ++n) {
            SCOPED_TRACE(n);
            reload();
            prepare();
            LogAt log(level);
            bool thrown = false;
            {
                const auto failure = support::failAllocation(n);
                try {
                    GVUSB_Scan(GVUSB_SCAN_ALL, nullptr);
                } catch (const std::bad_alloc&) {
                    thrown = true;
                }
                failed = failure.happened();
            }
            // A stream that runs out of memory truncates its text and continues.
            EXPECT_TRUE(thrown == failed || (failed && level > 0));
            EXPECT_EQ(fake::leftovers().find("list"), std::string::npos);
            expectConsistentLists(allNames);
            expectWorking();
        }
        EXPECT_GT(n, level == 0 ? 5u : 30u);
    }
}

TEST_F(DiscoverFaultsTest, EveryLibusbCallOfAScanMayFail) {
    bool failed = true;
    std::size_t n = 1;
    for (; failed; ++n) {
        SCOPED_TRACE(n);
        reload();
        prepare();
        fake::failCall(n, LIBUSB_ERROR_IO);
        GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr);
        failed = fake::failurePlayed();
        fake::stopFailing();
        expectConsistentLists(allNames);
        expectWorking();
    }
    EXPECT_GT(n, 20u);
}

TEST_F(DiscoverFaultsTest, ExceptionInsideALibusbCallReleasesEverything) {
    for (const char* const place : {"libusb_get_device_descriptor", "libusb_open",
                                    "libusb_get_string_descriptor_ascii", "libusb_get_config_descriptor"}) {
        SCOPED_TRACE(place);
        reload();
        prepare();
        fake::setHook([&](std::string_view function, std::string_view device) {
            if (function == place && device != "dev3") {
                throw std::bad_alloc();
            }
        });
        EXPECT_THROW(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), std::bad_alloc);
        fake::setHook({});
        expectConsistentLists(allNames);
        expectWorking();
    }
}
