// A report counts in the period in which the poll read the bus, even if a scan follows before the handlers
// have run.

#include "allocation_failure.h"
#include "list_invariants.h"
#include "manager_test.h"
#include "recorded_events.h"
#include "waiting.h"

#include <future>
#include <new>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ReportedTest : public ManagerTest {
protected:
    static void poll() { g_GvUsbMan.UpdateDevices(); }
    static void scan() { GVUSB_Scan(GVUSB_SCAN_ALL, nullptr); }

    static void scanOnly(const char* devId) {
        GVUSB_SCANSEARCH search = {.mask = GVUSB_SEARCH_DEVICE_ID, .famName = "", .devName = "", .devId = ""};
        std::snprintf(search.devId, sizeof search.devId, "%s", devId);
        GVUSB_Scan(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, &search);
    }
};

} // namespace

TEST_F(ReportedTest, ReportsCountBeforeTheirHandlersRun) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::plug("dev2", fake::bulkReader("A2"));
    scan();
    fake::unplug("dev1");
    fake::unplug("dev2");
    fake::plug("dev3", fake::bulkReader("A3"));
    std::vector<std::vector<unsigned>> counted;
    RecordedEvents events([&] {
        counted.push_back(reportedDisconnects());
        counted.push_back(reportedConnects());
    });
    poll();
    EXPECT_EQ(events.count(), 3u);
    ASSERT_EQ(counted.size(), 6u);
    for (std::size_t i = 0; i < counted.size(); i += 2) {
        EXPECT_THAT(counted[i], ElementsAre(0xA1, 0xA2));
        EXPECT_THAT(counted[i + 1], ElementsAre(0xA3));
    }
}

TEST_F(ReportedTest, ScanInAHandlerBeginsAPeriodWithoutThePollsReports) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::plug("dev2", fake::bulkReader("A2"));
    scan();
    fake::unplug("dev1");
    fake::unplug("dev2");
    fake::plug("dev3", fake::bulkReader("A3"));
    RecordedEvents events(scan);
    poll();
    EXPECT_EQ(events.count(), 3u);
    EXPECT_THAT(reportedDisconnects(), IsEmpty());
    EXPECT_THAT(reportedConnects(), IsEmpty());
}

TEST_F(ReportedTest, ReplacedReaderThatDepartsIsReportedTwiceToAHandlerThatScans) {
    fake::plug("dev1", fake::bulkReader("A1"));
    scan();
    RecordedEvents events(scan);
    fake::replug("dev1", "dev2");
    poll();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000002 id=a1"));
    poll();
    EXPECT_THAT(events.take(), IsEmpty());
    fake::unplug("dev2");
    poll();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000003 id=a1"));
    poll();
    EXPECT_THAT(events.take(), IsEmpty());
}

TEST_F(ReportedTest, EveryArrivalAndDepartureIsReportedToAHandlerThatScans) {
    fake::plug("dev1", fake::bulkReader("A1"));
    scan();
    RecordedEvents events(scan);
    for (int round = 1; round <= 3; ++round) {
        SCOPED_TRACE(round);
        const std::string replaced = "replaced" + std::to_string(round);
        fake::replug(round == 1 ? "dev1" : "back" + std::to_string(round - 1), replaced);
        poll();
        EXPECT_EQ(events.take().size(), 1u);
        fake::unplug(replaced);
        poll();
        EXPECT_EQ(events.take().size(), 1u);
        fake::plug("back" + std::to_string(round), fake::bulkReader("A1"));
        poll();
        EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1"));
    }
}

// The handler's scan leaves out the reported reader.
TEST_F(ReportedTest, ReaderThatTheHandlersScanLeavesOutIsReportedAgainInTheNewPeriod) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::plug("dev2", fake::bulkReader("A2"));
    scanOnly("A1");
    int scans = 0;
    RecordedEvents events([&] {
        if (++scans == 1) {
            scanOnly("A1");
        }
    });
    poll();
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a2"));
    poll();
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a2"));
    poll();
    EXPECT_THAT(events.take(), IsEmpty());
}

TEST_F(ReportedTest, PendingReportsAreMadeAfterAScanInAHandler) {
    for (const char* const name : {"dev1", "dev2", "dev3"}) {
        fake::plug(name, fake::bulkReader(std::string("A") + name[3]));
    }
    scan();
    for (const char* const name : {"dev1", "dev2", "dev3"}) {
        fake::unplug(name);
    }
    RecordedEvents events(scan);
    poll();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000001 id=a1", "disconnect hnd=10000002 id=a2",
                                           "disconnect hnd=10000003 id=a3"));
    poll();
    EXPECT_THAT(events.take(), IsEmpty());
}

// Lock the registrations, so that the poll has read the bus but cannot call its handlers yet.
TEST_F(ReportedTest, ScanOfAnotherThreadBeforeTheHandlersBeginsANewPeriod) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::plug("dev2", fake::bulkReader("A2"));
    scan();
    RecordedEvents events;
    fake::replug("dev1", "dev4");
    fake::plug("dev3", fake::bulkReader("A3"));
    std::future<void> polling;
    {
        const MutexLock handlers(g_MtxEvtInitAry);
        const std::size_t looks = fake::timesCalled("libusb_get_device_list");
        polling = std::async(std::launch::async, poll);
        ASSERT_TRUE(waiting::eventually([&] {
            return fake::timesCalled("libusb_get_device_list") > looks &&
                   !support::isHeld(g_GvUsbMan.m_mtxScanList);
        }));
        scan();
    }
    polling.get();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000003 id=a1", "connect hnd=0 id=a3"));
    EXPECT_THAT(reportedDisconnects(), IsEmpty());
    EXPECT_THAT(reportedConnects(), IsEmpty());

    fake::unplug("dev4");
    fake::unplug("dev3");
    poll();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000005 id=a1", "disconnect hnd=10000006 id=a3"));
}

TEST_F(ReportedTest, EqualDeviceIdsOfOnePollAreReportedOnceDespiteAScanInTheHandler) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::plug("dev2", fake::bulkReader("A1"));
    RecordedEvents events(scan);
    poll();
    EXPECT_THAT(events.take(), ElementsAre("connect hnd=0 id=a1"));
    fake::unplug("dev1");
    fake::unplug("dev2");
    poll();
    EXPECT_THAT(events.take(), ElementsAre("disconnect hnd=10000001 id=a1"));
    poll();
    EXPECT_THAT(events.take(), IsEmpty());
}

TEST_F(ReportedTest, PollThatRunsOutOfMemoryCountsNothing) {
    if (!support::allocationsAreWatched) {
        GTEST_SKIP() << "the sanitizer replaces operator new";
    }
    bool failed = true;
    std::size_t n = 1;
    for (; failed; ++n) {
        SCOPED_TRACE(n);
        reload();
        for (const char* const name : {"dev1", "dev2", "dev3"}) {
            fake::plug(name, fake::bulkReader(std::string("A") + name[3]));
        }
        scan();
        fake::unplug("dev1");
        fake::unplug("dev2");
        fake::plug("dev4", fake::bulkReader("A4"));
        fake::plug("dev5", fake::bulkReader("A5"));
        RecordedEvents events;
        bool thrown = false;
        {
            const auto failure = support::failAllocation(n);
            try {
                poll();
            } catch (const std::bad_alloc&) {
                thrown = true;
            }
            failed = failure.happened();
        }
        EXPECT_EQ(thrown, failed);
        if (failed) {
            EXPECT_THAT(events.take(), IsEmpty());
            poll();
        }
        EXPECT_THAT(events.take(),
                    ElementsAre("disconnect hnd=10000001 id=a1", "disconnect hnd=10000002 id=a2",
                                "connect hnd=0 id=a4", "connect hnd=0 id=a5"));
        poll();
        EXPECT_THAT(events.take(), IsEmpty());
    }
    EXPECT_GT(n, 5u);
}

TEST_F(ReportedTest, ScanBeginsANewPeriodOfReports) {
    {
        const MutexLock lock(g_GvUsbMan.m_mtxScanList);
        g_GvUsbMan.m_ReportedConnects = {1, 2};
        g_GvUsbMan.m_ReportedDisconnects = {3};
    }
    EXPECT_EQ(g_GvUsbMan.DiscoverDevices(nullptr), 0);
    const MutexLock lock(g_GvUsbMan.m_mtxScanList);
    EXPECT_THAT(g_GvUsbMan.m_ReportedConnects, IsEmpty());
    EXPECT_THAT(g_GvUsbMan.m_ReportedDisconnects, IsEmpty());
    EXPECT_GE(g_GvUsbMan.m_ReportedConnects.capacity(), 2u) << "the storage is kept";
}

TEST_F(ReportedTest, NewPeriodBeginsWhenThePollInProgressIsOver) {
    std::future<int> found;
    {
        const MutexLock poll(g_GvUsbMan.m_mtxScanList);
        found = std::async(std::launch::async, [] { return g_GvUsbMan.DiscoverDevices(nullptr); });
        found.wait_for(std::chrono::milliseconds(10));
        g_GvUsbMan.m_ReportedConnects = {1};
        g_GvUsbMan.m_ReportedDisconnects = {2};
    }
    EXPECT_EQ(found.get(), 0);
    EXPECT_THAT(reportedConnects(), IsEmpty());
    EXPECT_THAT(reportedDisconnects(), IsEmpty());
}

TEST_F(ReportedTest, DeviceIdSetKeepsOneOfEachInOrder) {
    std::vector<unsigned int> ids;
    for (const unsigned int id : {7u, 3u, 7u, 0u, 0xFFFFFFFFu, 3u, 0u}) {
        GVDrvHnd::ToDevIds(&ids, id);
    }
    EXPECT_THAT(ids, ElementsAre(7, 3, 0, 0xFFFFFFFF));
    for (const unsigned int id : ids) {
        EXPECT_TRUE(GVDrvHnd::IsInDevIds(&ids, id)) << id;
    }
    EXPECT_FALSE(GVDrvHnd::IsInDevIds(&ids, 8));
    std::vector<unsigned int> none;
    EXPECT_FALSE(GVDrvHnd::IsInDevIds(&none, 0));
}
