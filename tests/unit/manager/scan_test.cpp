#include "manager_lists.h"
#include "manager_test.h"

#include <climits>
#include <cstring>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr int search = GVUSB_SCAN_SEARCH;

class ScanTest : public ManagerTest {
protected:
    static void plugThree() {
        fake::plug("dev1", fake::bulkReader("A1"));
        fake::plug("dev2", fake::bulkReader("A2"));
        fake::plug("dev3", fake::bulkReader("A3"));
    }

    static int next() { return GVUSB_Scan(GVUSB_SCAN_NEXT, nullptr); }

    static GVUSB_SCANSEARCH forId(const char* devId) {
        GVUSB_SCANSEARCH record = {};
        record.mask = GVUSB_SEARCH_DEVICE_ID;
        std::strcpy(record.devId, devId);
        return record;
    }
};

} // namespace

TEST_F(ScanTest, ScanThatFindsNothingFailsAndLeavesNoCurrentEntry) {
    for (const int option : {GVUSB_SCAN_ALL, GVUSB_SCAN_ALL_15, GVUSB_SCAN_FIRST}) {
        for (const bool open : {false, true}) {
            SCOPED_TRACE(option);
            setScanCursor(5);
            EXPECT_EQ(g_GvUsbMan.Scan(option, nullptr, open), -1112);
            EXPECT_EQ(lastError(), -1112);
            EXPECT_EQ(scanCursor(), -1);
            EXPECT_THAT(scanList(), IsEmpty());
            EXPECT_EQ(next(), -1115);
            EXPECT_EQ(lastError(), -1115);
        }
    }
}

TEST_F(ScanTest, StepWithoutCurrentEntryHasACodeWithoutText) {
    EXPECT_EQ(next(), -1115);
    int code = 0;
    char text[GVUSB_TEXT_SIZE] = {};
    EXPECT_EQ(GVUSB_GetLastError(0, &code, text), -1155);
    EXPECT_EQ(code, -1115);
    EXPECT_STREQ(text, "GVUSB: Unknown Error: 0xFFFFFBA5 (-1115)");
}

TEST_F(ScanTest, ScanOfAllHasNoCurrentEntry) {
    plugThree();
    for (const int option : {GVUSB_SCAN_ALL, GVUSB_SCAN_ALL_15}) {
        setScanCursor(1);
        g_GvUsbMan.SetLastError(-1111);
        EXPECT_EQ(g_GvUsbMan.Scan(option, nullptr, false), 0);
        EXPECT_EQ(lastError(), 0);
        EXPECT_EQ(scanCursor(), -1);
        EXPECT_EQ(GVUSB_GetScanListSize(), 3);
        EXPECT_EQ(next(), -1115);
        EXPECT_EQ(scanCursor(), -1);
    }
}

TEST_F(ScanTest, StepsIterateOverTheListOnceAfterAScanOfTheFirst) {
    plugThree();
    g_GvUsbMan.SetLastError(-1111);
    EXPECT_EQ(g_GvUsbMan.Scan(GVUSB_SCAN_FIRST, nullptr, false), 0);
    EXPECT_EQ(lastError(), 0);
    EXPECT_EQ(scanCursor(), 0);
    EXPECT_EQ(GVUSB_GetScanListSize(), 3);
    EXPECT_EQ(next(), 1);
    EXPECT_EQ(scanCursor(), 1);
    EXPECT_EQ(next(), 2);
    EXPECT_EQ(lastError(), 0);
    EXPECT_EQ(next(), -1112);
    EXPECT_EQ(lastError(), -1112);
    EXPECT_EQ(scanCursor(), -1);
    EXPECT_EQ(next(), -1115);
}

TEST_F(ScanTest, StepClearsTheLastErrorAndAccessesNoDevice) {
    plugThree();
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr), 0);
    fake::takeCalls();
    g_GvUsbMan.SetLastError(-1111);
    EXPECT_EQ(g_GvUsbMan.Scan(GVUSB_SCAN_NEXT, nullptr, false), 1);
    EXPECT_EQ(lastError(), 0);
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_F(ScanTest, StepAfterClearingTheListFails) {
    plugThree();
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr), 0);
    GVUSB_ClearScanList();
    EXPECT_EQ(scanCursor(), 0);
    EXPECT_EQ(next(), -1112);
    EXPECT_EQ(scanCursor(), -1);
}

TEST_F(ScanTest, NothingOptionChangesNothing) {
    plugThree();
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr), 0);
    const Devices before = scanList();
    fake::takeCalls();
    GVUSB_SCANSEARCH record = forId("A2");
    LogAt log(3);
    for (const int option : {0x20000, 0x30000}) {
        for (const bool open : {false, true}) {
            g_GvUsbMan.SetLastError(-1111);
            EXPECT_EQ(g_GvUsbMan.Scan(option, &record, open), 0);
            EXPECT_EQ(lastError(), -1111);
        }
    }
    EXPECT_EQ(scanCursor(), 0);
    EXPECT_EQ(scanList(), before);
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    EXPECT_THAT(log.takeLines(), IsEmpty());
    EXPECT_EQ(GVUSB_Scan(0x20000, nullptr), 0);
    EXPECT_EQ(lastError(), 0) << "the exported function clears it first";
}

TEST_F(ScanTest, UnknownOptionsAreRefused) {
    plugThree();
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr), 0);
    const Devices before = scanList();
    fake::takeCalls();
    std::vector<int> options = {0,       16,      17,      -1,      -2,     INT_MIN, INT_MAX, 0x20001,
                                0x20002, 0x20003, 0x40000, 0x40001, 0x8001, 0x60000, 100};
    for (int option = 4; option < 15; ++option) {
        options.push_back(option);
    }
    for (const int option : options) {
        for (const int flag : {0, search}) {
            SCOPED_TRACE(option | flag);
            LogAt log(1);
            EXPECT_EQ(g_GvUsbMan.Scan(option | flag, nullptr, true), -1154);
            EXPECT_EQ(lastError(), -1154);
            EXPECT_THAT(log.takeLines(), ElementsAre("[scan] unknown scan option"));
        }
    }
    EXPECT_EQ(scanCursor(), 0);
    EXPECT_EQ(scanList(), before);
    EXPECT_THAT(fake::takeCalls(), IsEmpty());

    LogAt log(0);
    EXPECT_EQ(GVUSB_Scan(4, nullptr), -1154);
    EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(ScanTest, RecordIsUsedOnlyWithTheSearchFlag) {
    plugThree();
    GVUSB_SCANSEARCH record = forId("A2");
    for (const int option : {GVUSB_SCAN_FIRST, GVUSB_SCAN_ALL, GVUSB_SCAN_ALL_15}) {
        SCOPED_TRACE(option);
        EXPECT_EQ(GVUSB_Scan(option, &record), 0);
        EXPECT_THAT(deviceIds(scanList()), ElementsAre(0xA1, 0xA2, 0xA3));
        EXPECT_EQ(GVUSB_Scan(option | search, &record), 0);
        EXPECT_THAT(deviceIds(scanList()), ElementsAre(0xA2));
        EXPECT_EQ(GVUSB_Scan(option | search, nullptr), 0);
        EXPECT_THAT(deviceIds(scanList()), ElementsAre(0xA1, 0xA2, 0xA3));
    }
}

TEST_F(ScanTest, StepIgnoresTheRecord) {
    plugThree();
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr), 0);
    GVUSB_SCANSEARCH record = forId("FF");
    EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_NEXT | search, &record), 1);
    EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_NEXT | search, nullptr), 2);
    EXPECT_EQ(GVUSB_GetScanListSize(), 3);
}

TEST_F(ScanTest, SearchWithoutMatchFails) {
    plugThree();
    GVUSB_SCANSEARCH record = forId("FF");
    for (const int option : {GVUSB_SCAN_FIRST, GVUSB_SCAN_ALL, GVUSB_SCAN_ALL_15}) {
        EXPECT_EQ(GVUSB_Scan(option | search, &record), -1112);
        EXPECT_EQ(scanCursor(), -1);
        EXPECT_THAT(scanList(), IsEmpty());
    }
}

TEST_F(ScanTest, PlainScanOpensNothing) {
    plugThree();
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr), 0);
    ASSERT_EQ(next(), 1);
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    EXPECT_THAT(deviceList(), IsEmpty());
    EXPECT_EQ(fake::openHandles("dev1") + fake::openHandles("dev2") + fake::openHandles("dev3"), 0);
}

TEST_F(ScanTest, ScanAndOpenOfTheFirstReturnsItsHandle) {
    plugThree();
    g_GvUsbMan.SetLastError(-1111);
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr), firstHandle);
    EXPECT_EQ(lastError(), 0);
    EXPECT_EQ(scanCursor(), 0);
    EXPECT_THAT(openHandlesInOrder(), ElementsAre(firstHandle));
    EXPECT_EQ(fake::openHandles("dev1"), 1);
    EXPECT_EQ(fake::openHandles("dev2"), 0);
}

TEST_F(ScanTest, ScanAndOpenStepsFromReaderToReader) {
    plugThree();
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr), firstHandle);
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_NEXT, nullptr), firstHandle + 1);
    EXPECT_EQ(scanCursor(), 1);
    EXPECT_EQ(next(), 2);
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_NEXT, nullptr), -1112);
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_NEXT, nullptr), -1115);
    EXPECT_THAT(openHandlesInOrder(), ElementsAre(firstHandle, firstHandle + 1));
}

TEST_F(ScanTest, ScanAndOpenOfAllOpensEveryReader) {
    plugThree();
    for (const int option : {GVUSB_SCAN_ALL, GVUSB_SCAN_ALL_15}) {
        g_GvUsbMan.SetLastError(-1111);
        EXPECT_EQ(GVUSB_ScanAndOpen(option, nullptr), 0);
        EXPECT_EQ(lastError(), 0);
        EXPECT_EQ(scanCursor(), -1);
        EXPECT_THAT(openHandlesInOrder(), ElementsAre(firstHandle, firstHandle + 1, firstHandle + 2));
    }
}

TEST_F(ScanTest, ScanAndOpenOpensOnlyMatches) {
    plugThree();
    GVUSB_SCANSEARCH record = forId("A3");
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST | search, &record), firstHandle + 2);
    EXPECT_EQ(GVUSB_GetDeviceHnd(0xA3), firstHandle + 2);
    EXPECT_EQ(deviceList().size(), 1u);
}

TEST_F(ScanTest, ScanAndOpenReportsAFailureToOpen) {
    plugThree();
    // The first open of each reader in a scan is for its identification.
    fake::failNth("libusb_open", 2, LIBUSB_ERROR_ACCESS, "dev1");
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr), -1143);
    EXPECT_EQ(lastError(), -1143);
    EXPECT_EQ(scanCursor(), 0);
    EXPECT_EQ(scanList().size(), 3u);

    fake::failNext("libusb_open", LIBUSB_ERROR_ACCESS, "dev2");
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_NEXT, nullptr), -1143);
    EXPECT_EQ(lastError(), -1143);
    EXPECT_EQ(scanCursor(), 1) << "the entry is the current one nevertheless";

    fake::failNth("libusb_open", 2, LIBUSB_ERROR_ACCESS, "dev2");
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), -1143);
    EXPECT_EQ(lastError(), -1143);
    EXPECT_THAT(deviceIds(deviceList()), ElementsAre(0xA1, 0xA3));
}

TEST_F(ScanTest, ScanAndOpenOfAnOpenReaderReturnsItsHandle) {
    plugThree();
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr), firstHandle);
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr), firstHandle);
    EXPECT_EQ(lastError(), 0);
    EXPECT_EQ(fake::openHandles("dev1"), 1);
}

TEST_F(ScanTest, OpeningAHoleInTheScanListFails) {
    plugThree();
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr), 0);
    Devices devices = scanList();
    devices.insert(devices.begin() + 1, nullptr);
    setScanList(devices);
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_NEXT, nullptr), -1155);
    EXPECT_EQ(lastError(), -1155);
    EXPECT_EQ(next(), 2);
}

TEST_F(ScanTest, StepLogsTheSize) {
    plugThree();
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr), 0);
    LogAt log(1);
    EXPECT_EQ(next(), 1);
    EXPECT_THAT(log.takeLines(), ElementsAre("[scan-list] size=3"));
    setScanCursor(-1);
    EXPECT_EQ(next(), -1115);
    EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(ScanTest, ExportsClearTheLastErrorBeforeTheyScan) {
    for (auto* const scan : {&GVUSB_Scan, &GVUSB_ScanAndOpen}) {
        g_GvUsbMan.SetLastError(-1111);
        int seen = 1;
        fake::setHook([&](std::string_view, std::string_view) { seen = lastError(); });
        EXPECT_EQ(scan(GVUSB_SCAN_ALL, nullptr), -1112);
        EXPECT_EQ(seen, 0);
        fake::setHook({});
    }
}
