// Concurrent scanning and opening: a scan opens only the readers that it found, and no thread sees an
// incomplete list.

#include "list_invariants.h"
#include "manager_test.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <new>
#include <sched.h>
#include <thread>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::IsEmpty;

namespace {

class ScanThreadsTest : public ManagerTest {
protected:
    ScanThreadsTest() {
        for (unsigned i = 0; i < readers; ++i) {
            names.push_back("dev" + std::to_string(i + 1));
            fake::plug(names.back(), fake::bulkReader(hex(firstId + i)));
        }
    }

    static GVUSB_SCANSEARCH forId(unsigned devId) {
        GVUSB_SCANSEARCH record = {};
        record.mask = GVUSB_SEARCH_DEVICE_ID;
        std::snprintf(record.devId, sizeof record.devId, "%X", devId);
        return record;
    }

    // Yield to other threads often.
    static void yieldInEachCall() {
        fake::recordNothing();
        fake::setHook([](std::string_view, std::string_view) { sched_yield(); });
    }

    static constexpr unsigned readers = 6;
    static constexpr unsigned firstId = 0xA1;
    std::vector<std::string> names;
};

} // namespace

TEST_F(ScanThreadsTest, ScanThatOpensHoldsBothListMutexesUntilTheLastReaderIsOpen) {
    for (const int option : {GVUSB_SCAN_FIRST, GVUSB_SCAN_ALL, GVUSB_SCAN_ALL_15}) {
        SCOPED_TRACE(option);
        std::vector<std::string> unguarded;
        std::size_t opened = 0;
        fake::setHook([&](std::string_view function, std::string_view device) {
            opened += function == "libusb_get_config_descriptor" ? 1 : 0;
            if (!support::isHeld(g_GvUsbMan.m_mtxScanList) || !isGuarded(function)) {
                unguarded.push_back(std::string(function) + " of " + std::string(device));
            }
        });
        EXPECT_GE(GVUSB_ScanAndOpen(option, nullptr), 0);
        fake::setHook({});
        EXPECT_THAT(unguarded, IsEmpty());
        EXPECT_EQ(opened, option == GVUSB_SCAN_FIRST ? 1u : readers);
        expectConsistentLists(names);
        for (const int devHnd : openHandlesInOrder()) {
            GVUSB_CloseDevice(devHnd);
        }
    }
}

TEST_F(ScanThreadsTest, StepThatOpensTakesTheDeviceListMutexOnly) {
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr), 0);
    const MutexLock poll(g_GvUsbMan.m_mtxScanList);
    EXPECT_TRUE(waitsFor(g_GvUsbMan.m_mtxDevList,
                         [] { EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_NEXT, nullptr), firstHandle + 1); }));
}

TEST_F(ScanThreadsTest, ExceptionInTheOpeningReleasesEveryMutex) {
    for (const int option : {GVUSB_SCAN_FIRST, GVUSB_SCAN_NEXT, GVUSB_SCAN_ALL}) {
        SCOPED_TRACE(option);
        fake::setHook({});
        ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr), 0);
        fake::setHook([](std::string_view function, std::string_view) {
            if (function == "libusb_get_config_descriptor") {
                throw std::bad_alloc();
            }
        });
        EXPECT_THROW(GVUSB_ScanAndOpen(option, nullptr), std::bad_alloc);
        expectConsistentLists(names);
    }
    fake::setHook({});
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    EXPECT_EQ(openHandlesInOrder().size(), readers);
}

TEST_F(ScanThreadsTest, EachThreadOpensTheReaderThatItsOwnScanFound) {
    constexpr int rounds = 500;
    yieldInEachCall();
    std::atomic<int> wrong = 0;
    const auto openOwn = [&](unsigned devId) {
        GVUSB_SCANSEARCH record = forId(devId);
        for (int round = 0; round < rounds; ++round) {
            const int devHnd = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST | GVUSB_SCAN_SEARCH, &record);
            wrong += devHnd <= 0 || devHnd != GVUSB_GetDeviceHnd(devId) ? 1 : 0;
            GVUSB_CloseDevice(devHnd);
        }
    };
    std::thread other(openOwn, firstId);
    openOwn(firstId + 1);
    other.join();
    EXPECT_EQ(wrong, 0);
    fake::setHook({});
    expectConsistentLists(names);
}

TEST_F(ScanThreadsTest, PresentReaderIsInTheListOfEveryConcurrentScan) {
    constexpr int scans = 500;
    yieldInEachCall();
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    std::atomic<bool> scanning = true;
    std::thread scanner([&] {
        for (int i = 0; i < scans; ++i) {
            EXPECT_EQ(GVUSB_Scan(i % 2 == 0 ? GVUSB_SCAN_ALL : GVUSB_SCAN_FIRST, nullptr), 0);
        }
        scanning = false;
    });
    int notOpened = 0;
    int otherSizes = 0;
    while (scanning) {
        const int devHnd = GVUSB_OpenDevice(firstId + 2);
        notOpened += devHnd <= 0 ? 1 : 0;
        GVUSB_CloseDevice(devHnd);
        otherSizes += GVUSB_GetScanListSize() != readers ? 1 : 0;
    }
    scanner.join();
    EXPECT_EQ(notOpened, 0);
    EXPECT_EQ(otherSizes, 0);
    fake::setHook({});
    expectConsistentLists(names);
}

TEST_F(ScanThreadsTest, ThreadsThatStepReturnEachEntryOnce) {
    constexpr int rounds = 200;
    yieldInEachCall();
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr), 0);
        std::vector<int> steps[2];
        const auto step = [](std::vector<int>& indexes) {
            for (int index = 0; (index = GVUSB_Scan(GVUSB_SCAN_NEXT, nullptr)) > 0;) {
                indexes.push_back(index);
            }
        };
        std::thread other(step, std::ref(steps[1]));
        step(steps[0]);
        other.join();
        steps[0].insert(steps[0].end(), steps[1].begin(), steps[1].end());
        std::sort(steps[0].begin(), steps[0].end());
        EXPECT_THAT(steps[0], testing::ElementsAre(1, 2, 3, 4, 5));
    }
}
