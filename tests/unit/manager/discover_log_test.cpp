// The log of whole scans, line by line, at every level.

#include "manager_lists.h"
#include "manager_test.h"
#include "waiting.h"

#include <cstring>
#include <future>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

std::string vendorText(unsigned vendor) {
    return "vendor=0x" + hex(vendor);
}

const std::string makers = vendorText(GVUSB_VENDOR_ID);

class DiscoverLogTest : public ManagerTest {
protected:
    // dev1 is open. The others are a device of another vendor, a product that is not a reader, a new reader,
    // a reader that cannot be identified, and one of another family.
    static void plugMixture() {
        fake::plug("dev1", fake::bulkReader("A1"));
        ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
        fake::FakeReader otherProduct = fake::bulkReader("A9");
        otherProduct.product = 10;
        otherProduct.bus = 12;
        otherProduct.address = 34;
        fake::plug("lamp", fake::foreignDevice());
        fake::plug("dev9", otherProduct);
        fake::plug("dev2", fake::controlReader("1A2B3C"));
        fake::plug("dev3", fake::bulkReader("A3"));
        fake::setString("dev3", 3, LIBUSB_ERROR_PIPE);
        fake::plug("dev4", fake::bulkReader("A4"));
        fake::setString("dev4", 3, "MOBILE");
    }

    static GVUSB_SCANSEARCH forFamily(const char* famName) {
        GVUSB_SCANSEARCH search = {};
        search.mask = GVUSB_SEARCH_FAMILY_NAME;
        std::strcpy(search.famName, famName);
        std::strcpy(search.devName, "NAME");
        std::strcpy(search.devId, "0xFF");
        return search;
    }

    // A line of the log, written at levels above this one.
    struct Line {
        int above;
        std::string text;
    };

    static Lines linesAt(int level, const std::vector<Line>& lines) {
        Lines wanted;
        for (const Line& line : lines) {
            if (level > line.above) {
                wanted.push_back(line.text);
            }
        }
        return wanted;
    }

    // The handles increase with each scan: one for each reader that is not open.
    static std::vector<Line> mixtureLines(int handle) {
        const auto hnd = [&](int i) { return "0x" + hex(static_cast<unsigned>(handle + i)); };
        return {
            {0, "[search-opt] mask=1 devId=0x0xFF devName=NAME famName=DESKTOP"},
            {0, "[scan] numDev=6"},
            {0, "[scan] device: " + makers + " prod=1 bus=1 busAddr=1   GAVO"},
            {0, "[scan] usbDev allready in device list. devId=0xa1"},
            {0, "[scan] device: " + vendorText(GVUSB_VENDOR_ID ^ 1) + " prod=1 bus=1 busAddr=2"},
            {0, "[scan] device: " + makers + " prod=10 bus=12 busAddr=34   GAVO"},
            {0, "[scan] device: " + makers + " prod=2 bus=1 busAddr=35   GAVO"},
            {1, "[ident] devIdStr=1A2B3C"},
            {1, "[ident] devId=0x1a2b3c"},
            {1, "[ident] famName=DESKTOP"},
            {1, "[ident] devName=READER ONE"},
            {1, "[ident] intType=TESK-RCI2"},
            {1, "[ident] ok"},
            {0, "[scan] New device: devHnd=" + hnd(0) + " devId=0x1a2b3c"},
            {0, "[scan] device: " + makers + " prod=1 bus=1 busAddr=36   GAVO"},
            {1, "[ident] devIdStr=A3"},
            {1, "[ident] devId=0xa3"},
            {1, "[ident] libusb_get_string_descriptor_ascii(famName) returned -9"},
            {0, "[scan] Identify return-code=-1168"},
            {0, "[scan] device: " + makers + " prod=1 bus=1 busAddr=37   GAVO"},
            {1, "[ident] devIdStr=A4"},
            {1, "[ident] devId=0xa4"},
            {1, "[ident] famName=MOBILE"},
            {1, "[ident] devName=READER ONE"},
            {1, "[ident] intType=TESK-RCI2"},
            {1, "[ident] ok"},
            {0, "[scan] Don't want: devId=0xa4 devName=READER ONE famName=MOBILE"},
            {0, "[scan-list] dev0: " + deviceText(firstHandle, 0xA1, "dev1", false)},
            {0, "[scan-list] dev1: " + deviceText(handle, 0x1A2B3C, "dev2", true)},
        };
    }
};

} // namespace

TEST_F(DiscoverLogTest, ScanLogsItsActionForEachDevice) {
    plugMixture();
    GVUSB_SCANSEARCH search = forFamily("DESKTOP");
    int handle = firstHandle + 1;
    for (const int level : {0, 1, 2, 3}) {
        SCOPED_TRACE(level);
        LogAt log(level);
        EXPECT_EQ(g_GvUsbMan.DiscoverDevices(&search), 2);
        EXPECT_THAT(log.takeLines(), ElementsAreArray(linesAt(level, mixtureLines(handle))));
        handle += 3;
    }
}

TEST_F(DiscoverLogTest, SearchIsLoggedBeforeTheScanWaitsForAnUpdateToEnd) {
    LogAt log(1);
    std::future<int> scan;
    {
        const MutexLock update(g_GvUsbMan.m_mtxScanList);
        scan = std::async(std::launch::async, [] { return g_GvUsbMan.DiscoverDevices(nullptr); });
        Lines lines;
        EXPECT_TRUE(waiting::eventually([&] { return !(lines = log.takeLines()).empty(); }));
        EXPECT_THAT(lines, ElementsAre("[search-opt] all"));
    }
    EXPECT_EQ(scan.get(), 0);
    EXPECT_THAT(log.takeLines(), ElementsAre("[scan] numDev=0", "[scan-list] no devices"));
}

TEST_F(DiscoverLogTest, OpenReaderThatDoesNotMatchIsNotWanted) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    GVUSB_SCANSEARCH search = forFamily("MOBILE");
    LogAt log(3);
    EXPECT_EQ(g_GvUsbMan.DiscoverDevices(&search), 0);
    EXPECT_THAT(log.takeLines(),
                ElementsAre("[search-opt] mask=1 devId=0x0xFF devName=NAME famName=MOBILE", "[scan] numDev=1",
                            "[scan] device: " + makers + " prod=1 bus=1 busAddr=1   GAVO",
                            "[scan] Don't want: devId=0xa1 devName=READER ONE famName=DESKTOP",
                            "[scan-list] no devices"));
}

TEST_F(DiscoverLogTest, FailedEnumerationShowsLibusbsResult) {
    fake::failNext("libusb_get_device_list", LIBUSB_ERROR_NO_MEM);
    LogAt log(1);
    EXPECT_EQ(g_GvUsbMan.DiscoverDevices(nullptr), 0);
    EXPECT_THAT(log.takeLines(),
                ElementsAre("[search-opt] all", "[scan] numDev=-11", "[scan-list] no devices"));
}

TEST_F(DiscoverLogTest, EachFailureToIdentifyShowsItsCode) {
    fake::plug("dev1", fake::bulkReader("A1"));
    const auto scanLines = [](int level) {
        LogAt log(level);
        EXPECT_EQ(g_GvUsbMan.DiscoverDevices(nullptr), 0);
        Lines lines = log.takeLines();
        EXPECT_GE(lines.size(), 5u);
        // The other lines are the same for every failure.
        return Lines(lines.begin() + 3, lines.end() - 1);
    };
    fake::failNext("libusb_open", LIBUSB_ERROR_ACCESS);
    EXPECT_THAT(scanLines(2), ElementsAre("[scan] Identify return-code=-1143"));

    fake::setString("dev1", 1, "none");
    EXPECT_THAT(scanLines(2), ElementsAre("[ident] devIdStr=none", "[scan] Identify return-code=-1166"));
    fake::setString("dev1", 1, LIBUSB_ERROR_IO);
    EXPECT_THAT(scanLines(2), ElementsAre("[ident] libusb_get_string_descriptor_ascii(devId) returned -1",
                                          "[scan] Identify return-code=-1166"));
    EXPECT_THAT(scanLines(1), ElementsAre("[scan] Identify return-code=-1166"));
    fake::setString("dev1", 1, "A1");
    fake::setString("dev1", 6, LIBUSB_ERROR_TIMEOUT);
    EXPECT_THAT(scanLines(2), ElementsAre("[ident] devIdStr=A1", "[ident] devId=0xa1",
                                          "[ident] famName=DESKTOP", "[ident] devName=READER ONE",
                                          "[ident] libusb_get_string_descriptor_ascii(devName) returned -7",
                                          "[scan] Identify return-code=-1168"));
    fake::setString("dev1", 5, LIBUSB_ERROR_TIMEOUT);
    EXPECT_THAT(scanLines(1), ElementsAre("[scan] Identify return-code=-1168"));
}

TEST_F(DiscoverLogTest, ReaderThatCannotBeIdentifiedIsDestroyedBeforeTheLogSaysSo) {
    fake::plug("dev1", fake::bulkReader("none"));
    LogAt log(1);
    fake::setHook([&](std::string_view function, std::string_view) {
        if (function == "libusb_unref_device") {
            EXPECT_THAT(log.takeLines(), testing::SizeIs(3));
        }
    });
    EXPECT_EQ(g_GvUsbMan.DiscoverDevices(nullptr), 0);
    fake::setHook({});
    EXPECT_THAT(log.takeLines(), ElementsAre("[scan] Identify return-code=-1166", "[scan-list] no devices"));
}

TEST_F(DiscoverLogTest, ReplacementOfAnOpenReaderIsLogged) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    fake::replug("dev1", "dev2");
    const std::string replaced = deviceText(firstHandle, 0xA1, "dev1", false);
    LogAt log(2);
    EXPECT_EQ(g_GvUsbMan.DiscoverDevices(nullptr), 1);
    const Lines lines = log.takeLines();
    ASSERT_EQ(lines.size(), 15u);
    EXPECT_THAT(Lines(lines.begin() + 9, lines.end()),
                ElementsAre("[scan] New device: devHnd=0x10000002 devId=0xa1",
                            "[replace] " + deviceText(firstHandle + 1, 0xA1, "dev2", true),
                            "[to ... ] " + replaced, "[open] devHnd=0x10000001 devId=0xa1: ok",
                            "[scan] Replace in device list: devId=0xa1",
                            "[scan-list] dev0: " + deviceText(firstHandle, 0xA1, "dev2", false)));
}

TEST_F(DiscoverLogTest, ReplacementIsLoggedAboveLevelZero) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    fake::replug("dev1", "dev2");
    LogAt log(1);
    EXPECT_EQ(g_GvUsbMan.DiscoverDevices(nullptr), 1);
    EXPECT_THAT(log.takeLines(), Contains("[scan] Replace in device list: devId=0xa1"));
}

TEST_F(DiscoverLogTest, ReadingADeviceIdIsLoggedAboveLevelTwo) {
    libusb_device* const dev = fake::plug("dev1", fake::bulkReader("A1"));
    for (const int level : {0, 1, 2}) {
        LogAt log(level);
        g_GvUsbMan.ReadDeviceIdOfUsbDev(dev);
        EXPECT_THAT(log.takeLines(), IsEmpty()) << level;
    }
    LogAt log(3);
    g_GvUsbMan.ReadDeviceIdOfUsbDev(dev);
    EXPECT_THAT(log.takeLines(), ElementsAre("[update] read device id"));
    fake::failNext("libusb_open", LIBUSB_ERROR_ACCESS);
    g_GvUsbMan.ReadDeviceIdOfUsbDev(dev);
    EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(DiscoverLogTest, ScanAndOpenLogsBothParts) {
    fake::plug("dev1", fake::bulkReader("A1"));
    LogAt log(1);
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr), firstHandle);
    EXPECT_THAT(log.takeLines(),
                ElementsAre("[search-opt] all", "[scan] numDev=1",
                            "[scan] device: " + makers + " prod=1 bus=1 busAddr=1   GAVO",
                            "[scan] New device: devHnd=0x10000001 devId=0xa1",
                            "[scan-list] dev0: " + deviceText(firstHandle, 0xA1, "dev1", true),
                            "[open device] devId=0xa1: ok",
                            "[device-list] dev0: " + deviceText(firstHandle, 0xA1, "dev1", false)));
}
