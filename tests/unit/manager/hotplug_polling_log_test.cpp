// The log of polls, line by line, at every level.

#include "manager_lists.h"
#include "manager_test.h"

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class HotPlugPollingLogTest : public ManagerTest {
protected:
    static Lines pollAt(int level) {
        LogAt log(level);
        g_GvUsbMan.UpdateDevices();
        return log.takeLines();
    }

    static std::string known(const std::string& devId, const std::string& name) {
        return "[update] known device in scan-list: devId=0x" + devId + " usbDevPtr=" + pointerText(name);
    }

    // dev1 (A1) is known, dev2 (A2) unplugged, dev3 (A3) new.
    static void comeAndGo() {
        fake::plug("dev1", fake::bulkReader("A1"));
        fake::plug("dev2", fake::bulkReader("A2"));
        ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
        fake::unplug("dev2");
        fake::plug("dev3", fake::bulkReader("1B3"));
    }
};

} // namespace

TEST_F(HotPlugPollingLogTest, ReportsAreLoggedAboveLevelZero) {
    for (const int level : {0, 1, 2}) {
        SCOPED_TRACE(level);
        restart(quiet);
        comeAndGo();
        const Lines lines = pollAt(level);
        if (level == 0) {
            EXPECT_THAT(lines, IsEmpty());
        } else {
            EXPECT_THAT(lines, ElementsAre("[update] MESSAGE \"disconnect\": devId=0xa2 devHnd=0x10000002",
                                           "[update] MESSAGE \"connect\": devId=0x1b3"));
        }
        EXPECT_THAT(pollAt(2), IsEmpty()) << "nothing is reported twice";
    }
}

TEST_F(HotPlugPollingLogTest, EachReaderIsLoggedAboveLevelTwo) {
    comeAndGo();
    EXPECT_THAT(pollAt(3), ElementsAre(known("a1", "dev1"), "[update] read device id",
                                       "[update] new device: devId=0x1b3",
                                       "[update] MESSAGE \"disconnect\": devId=0xa2 devHnd=0x10000002",
                                       "[update] MESSAGE \"connect\": devId=0x1b3"));
    EXPECT_THAT(pollAt(3), ElementsAre(known("a1", "dev1"), "[update] read device id",
                                       "[update] new device: devId=0x1b3"));
}

TEST_F(HotPlugPollingLogTest, UnreadableDeviceIdIsLoggedAboveLevelTwo) {
    fake::plug("dev1", fake::bulkReader("A1"));
    fake::setString("dev1", 1, LIBUSB_ERROR_IO);
    EXPECT_THAT(pollAt(2), IsEmpty());
    EXPECT_THAT(pollAt(3),
                ElementsAre("[update] read device id", "[update] new device: reading devId failed"));
    fake::failNext("libusb_open", LIBUSB_ERROR_ACCESS);
    EXPECT_THAT(pollAt(3), ElementsAre("[update] new device: reading devId failed"));
}

TEST_F(HotPlugPollingLogTest, ReturnOfAnOpenReaderIsLogged) {
    const Lines identified = {"[ident] devIdStr=A1",       "[ident] devId=0xa1",
                              "[ident] famName=DESKTOP",   "[ident] devName=READER ONE",
                              "[ident] intType=TESK-RCI2", "[ident] ok"};
    for (const int level : {0, 1, 2, 3}) {
        SCOPED_TRACE(level);
        restart(quiet);
        fake::plug("dev1", fake::bulkReader("A1"));
        ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
        fake::replug("dev1", "dev2");
        const Lines replaced = {"[replace] " + deviceText(firstHandle + 1, 0xA1, "dev2", true),
                                "[to ... ] " + deviceText(firstHandle, 0xA1, "dev1", false)};
        Lines wanted;
        const auto add = [&](int above, const Lines& lines) {
            if (level > above) {
                wanted.insert(wanted.end(), lines.begin(), lines.end());
            }
        };
        add(2, {"[update] read device id"});
        add(1, identified);
        add(0, replaced);
        add(1, {"[open] devHnd=0x10000001 devId=0xa1: ok"});
        add(2, {"[update] reconnected device: devId=0xa1"});
        add(0, {"[update] MESSAGE \"disconnect\": devId=0xa1 devHnd=0x10000001"});
        EXPECT_EQ(pollAt(level), wanted);
    }
}

TEST_F(HotPlugPollingLogTest, FailedIdentificationOfAReturnedReaderShowsItsCodeInHexadecimal) {
    fake::plug("dev1", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
    fake::replug("dev1", "dev2");
    fake::setString("dev2", 3, LIBUSB_ERROR_PIPE);
    EXPECT_THAT(pollAt(2), ElementsAre("[ident] devIdStr=A1", "[ident] devId=0xa1",
                                       "[ident] libusb_get_string_descriptor_ascii(famName) returned -9",
                                       "[update] MESSAGE \"disconnect\": devId=0xa1 devHnd=0x10000001"));
    EXPECT_THAT(pollAt(3), ElementsAre("[update] read device id", "[ident] devIdStr=A1", "[ident] devId=0xa1",
                                       "[ident] libusb_get_string_descriptor_ascii(famName) returned -9",
                                       "[update] reconnected device: devId=0xa1 Identify "
                                       "return-code=fffffb70"));
}
