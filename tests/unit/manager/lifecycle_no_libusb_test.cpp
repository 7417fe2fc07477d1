// libusb_init() may fail (no netlink, no free descriptors). The library then loads, finds no readers, and
// never passes the missing context to libusb, which would crash.
#include "lifecycle_test.h"

#include "captured_stdout.h"
#include "worker_sleep.h"

#include "base/log.h"

#include <ostream>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class NoLibusbTest : public LifecycleTest {
protected:
    ~NoLibusbTest() override { GVLOG_SetLevel(0); }

    static void loadWithout(const std::string& configuration) {
        load(configuration, [] {
            fake::plug("dev1", fake::bulkReader("1A2B3C"));
            fake::failNext("libusb_init", LIBUSB_ERROR_OTHER);
            fake::recordAll();
        });
    }

    static void expectNoMisuse() { EXPECT_THAT(fake::misuses(), IsEmpty()); }
};

struct Mode {
    const char* name;
    const char* configuration;
};

void PrintTo(const Mode& mode, std::ostream* stream) {
    *stream << mode.configuration;
}

class NoLibusbInModeTest : public NoLibusbTest, public testing::WithParamInterface<Mode> {
protected:
    static void loadWithout() { NoLibusbTest::loadWithout(GetParam().configuration); }
};

INSTANTIATE_TEST_SUITE_P(Modes, NoLibusbInModeTest,
                         testing::Values(Mode{"Off", "gvusb_hotplug=0"}, Mode{"Polling", "gvusb_hotplug=1"},
                                         Mode{"Callbacks", "gvusb_hotplug=2"},
                                         Mode{"NoPnp", "nopnp libusb_debuglevel=4"}),
                         [](const auto& each) { return std::string(each.param.name); });

TEST_P(NoLibusbInModeTest, LoadingMakesOnlyCallsThatNeedNoContext) {
    loadWithout();
    EXPECT_THAT(fake::takeCalls(),
                ElementsAre("libusb_init(default) = -99", "libusb_get_version()",
                            "libusb_has_capability(0) = 1", "libusb_has_capability(1) = 1"));
    EXPECT_EQ(relaxed::load(g_GvUsbMan.m_iLastError), 0);
    expectNoMisuse();
}

TEST_P(NoLibusbInModeTest, ScansFindNothing) {
    loadWithout();
    fake::takeCalls();
    EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), -1112);
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), -1112);
    EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr), -1112);
    EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_NEXT, nullptr), -1115);
    EXPECT_EQ(GVUSB_GetScanListSize(), 0);
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    expectNoMisuse();
}

TEST_P(NoLibusbInModeTest, ReaderFunctionsFindNone) {
    loadWithout();
    fake::takeCalls();
    unsigned char buffer[4] = {};
    char value[GVUSB_PARAMETER_SIZE] = {};
    EXPECT_EQ(GVUSB_OpenDevice(0x1A2B3C), -1140);
    EXPECT_EQ(GVUSB_GetDeviceList(0), 0);
    EXPECT_EQ(GVUSB_GetDeviceHnd(0x1A2B3C), -1144);
    EXPECT_EQ(GVUSB_IsDevicePresent(0x10000001), -1123);
    EXPECT_EQ(GVUSB_Transceive(0x10000001, GVUSB_PROTOCOL, 0, buffer, 4, buffer, 4), -1123);
    EXPECT_EQ(GVUSB_GetDevicePara(0, "TIMEOUT", value), -1100);
    EXPECT_EQ(GVUSB_GetDevicePara(0x10000001, "TIMEOUT", value), -1123);
    EXPECT_EQ(GVUSB_CloseDevice(0x10000001), -1123);
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    expectNoMisuse();
}

TEST_P(NoLibusbInModeTest, PollsDoNotCallLibusb) {
    loadWithout();
    fake::takeCalls();
    g_GvUsbMan.UpdateDevices();
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    expectNoMisuse();
}

TEST_P(NoLibusbInModeTest, UnloadingDoesNotExitLibusb) {
    loadWithout();
    EXPECT_THAT(unload(), IsEmpty());
}

TEST_F(NoLibusbTest, StartIsLoggedAsUsual) {
    support::CapturedStdout output;
    loadWithout("gvusb_debuglevel=1 gvusb_hotplug=2");
    std::vector<std::string> lines = output.takeLogLines();
    std::erase(lines, "[init] gvUSB-Parallel=1");
    EXPECT_THAT(lines, ElementsAre("[init] libUSB-Version=1.0.26.11724   API=1000105",
                                   "[init] libUSB-DebugLevel=0", "[init] libUSB-HasHotPlug=1",
                                   "[init] gvUSB-Version=7.1.0  ", "[init] gvUSB-DebugLevel=1",
                                   "[init] gvUSB-UseHotPlug=2", "[init] libUSB callbacks registered"));
    unload();
    EXPECT_THAT(output.takeLogLines(), ElementsAre("[exit] cleaning up ...", "[exit] ... done"));
}

TEST_F(NoLibusbTest, WorkerPollsWithoutLibusb) {
    support::SteeredSleep sleep;
    loadWithout("gvusb_hotplug=1");
    sleep.turn();
    sleep.turn();
    EXPECT_EQ(fake::timesCalled("libusb_get_device_list"), 0u);
    expectNoMisuse();
}

} // namespace
