// Construction of the manager.
#include "lifecycle_test.h"

#include "captured_stdout.h"
#include "clock.h"
#include "mutex_probe.h"

#include "base/log.h"

#include <climits>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fake = fake_libusb;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

class StartTest : public LifecycleTest {
protected:
    ~StartTest() override { GVLOG_SetLevel(0); }

    static int openFiles() {
        const std::filesystem::directory_iterator files("/proc/self/fd");
        return static_cast<int>(std::distance(begin(files), end(files)));
    }

    static int mode() { return g_GvUsbMan.m_iHotPlugMode; }
    static unsigned int updateRate() { return relaxed::load(g_GvUsbMan.m_uiUpdateRate); }
    static bool suspended() { return relaxed::load(g_GvUsbMan.m_bSuspend); }
};

const std::vector<std::string> callsWithoutFile = {
    "libusb_init(default) = 0",     "libusb_get_version()",         "libusb_has_capability(0) = 1",
    "libusb_has_capability(1) = 1", "libusb_set_debug(default, 0)",
};

std::vector<std::string> withMore(std::vector<std::string> calls, std::initializer_list<std::string> more) {
    calls.insert(calls.end(), more);
    return calls;
}

constexpr const char* registerConnect = "libusb_hotplug_register_callback(default, 1, 0, 0x1209, -1, -1) = 0";
constexpr const char* registerDisconnect =
    "libusb_hotplug_register_callback(default, 2, 0, 0x1209, -1, -1) = 0";

} // namespace

TEST_F(StartTest, WithoutConfigurationFileTheDefaultsApply) {
    load(std::nullopt);
    EXPECT_EQ(relaxed::load(g_GvUsbMan.m_iLastError), 0);
    EXPECT_FALSE(g_GvUsbMan.m_bStopThread);
    EXPECT_FALSE(suspended());
    EXPECT_EQ(updateRate(), 300000u);
    EXPECT_EQ(g_GvUsbMan.m_iLibUsbDebugLevel, 0);
    EXPECT_EQ(g_GvUsbMan.m_iDebugLevel, 0);
    EXPECT_EQ(GVLOG_Level(), 0);
    EXPECT_TRUE(g_GvUsbMan.m_bHasHotPlug);
    EXPECT_EQ(mode(), 1);
    const MutexLock scanLock(g_GvUsbMan.m_mtxScanList);
    EXPECT_TRUE(g_GvUsbMan.m_ReportedConnects.empty());
    EXPECT_TRUE(g_GvUsbMan.m_ReportedDisconnects.empty());
    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    EXPECT_EQ(g_GvUsbMan.m_iHandleCounter, 0);
    EXPECT_EQ(g_GvUsbMan.m_iScanCursor, -1);
    EXPECT_TRUE(g_GvUsbMan.m_ScanList.empty());
    EXPECT_TRUE(g_GvUsbMan.m_DeviceList.empty());
}

TEST_F(StartTest, MutexesAreFree) {
    load("nopnp");
    EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxDevList));
    EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxScanList));
    EXPECT_FALSE(support::isHeld(g_MtxEvtInitAry));
}

TEST_F(StartTest, LibusbIsCalledInOrder) {
    load(std::nullopt);
    EXPECT_THAT(fake::takeCalls(), ElementsAreArray(callsWithoutFile));
}

TEST_F(StartTest, FileThatCanBeReadSetsLibusbsDebugLevelAgain) {
    load("");
    EXPECT_THAT(fake::takeCalls(),
                ElementsAreArray(withMore(callsWithoutFile, {"libusb_set_debug(default, 0)"})));
    load("nopnp libusb_debuglevel=4");
    EXPECT_THAT(fake::takeCalls(),
                ElementsAreArray(withMore(callsWithoutFile, {"libusb_set_debug(default, 4)"})));
    EXPECT_EQ(g_GvUsbMan.m_iLibUsbDebugLevel, 4);
}

TEST_F(StartTest, ModeTwoRegistersForArrivalsThenForDepartures) {
    load("gvusb_hotplug=2");
    EXPECT_THAT(fake::takeCalls(),
                ElementsAreArray(withMore(callsWithoutFile, {"libusb_set_debug(default, 0)", registerConnect,
                                                             registerDisconnect})));
    EXPECT_EQ(mode(), 2);
    EXPECT_TRUE(suspended());
    EXPECT_EQ(g_GvUsbMan.m_hCbConnect, 1);
    EXPECT_EQ(g_GvUsbMan.m_hCbDisconnect, 2);
}

TEST_F(StartTest, OnlyModeOnePolls) {
    for (const char* configuration : {"gvusb_hotplug=0", "gvusb_hotplug=2", "gvusb_hotplug=7", "nopnp"}) {
        load(configuration);
        EXPECT_TRUE(suspended()) << configuration;
    }
    load("gvusb_hotplug=1");
    EXPECT_FALSE(suspended());
}

TEST_F(StartTest, UnknownModesAreKept) {
    load("gvusb_hotplug=7");
    EXPECT_EQ(mode(), 7);
    EXPECT_EQ(fake::registeredCallbacks(), 0);
    load("gvusb_hotplug=!");
    EXPECT_EQ(mode(), -15);
}

TEST_F(StartTest, ModeTwoNeedsLibusbsHotPlug) {
    const auto withoutHotPlug = [] { fake::setCapability(LIBUSB_CAP_HAS_HOTPLUG, false); };
    load("gvusb_hotplug=2", withoutHotPlug);
    EXPECT_EQ(mode(), 0);
    EXPECT_FALSE(g_GvUsbMan.m_bHasHotPlug);
    EXPECT_TRUE(suspended());
    EXPECT_EQ(fake::timesCalled("libusb_hotplug_register_callback"), 0u);
    load("gvusb_hotplug=1", withoutHotPlug);
    EXPECT_EQ(mode(), 1);
    load(std::nullopt, withoutHotPlug);
    EXPECT_EQ(mode(), 1);
}

TEST_F(StartTest, NoPnpOverridesEveryMode) {
    for (const char* configuration : {"nopnp gvusb_hotplug=2", "gvusb_hotplug=1\nnopnp"}) {
        load(configuration);
        EXPECT_EQ(mode(), 0) << configuration;
        EXPECT_EQ(fake::registeredCallbacks(), 0) << configuration;
    }
}

TEST_F(StartTest, FailedRegistrationsAreIgnored) {
    load("gvusb_hotplug=2",
         [] { fake::failAlways("libusb_hotplug_register_callback", LIBUSB_ERROR_NO_MEM); });
    EXPECT_EQ(mode(), 2);
    EXPECT_EQ(relaxed::load(g_GvUsbMan.m_iLastError), 0);
    EXPECT_EQ(fake::timesCalled("libusb_hotplug_register_callback"), 2u);
}

TEST_F(StartTest, LibusbWithoutCapabilityQueryIsTheFirstLastError) {
    load("nopnp", [] {
        fake::setCapability(LIBUSB_CAP_HAS_CAPABILITY, false);
        fake::setCapability(LIBUSB_CAP_HAS_HOTPLUG, false);
    });
    EXPECT_THAT(fake::takeCalls(),
                ElementsAre("libusb_init(default) = 0", "libusb_get_version()",
                            "libusb_has_capability(0) = 0", "libusb_has_capability(1) = 0",
                            "libusb_set_debug(default, 0)", "libusb_set_debug(default, 0)"));
    EXPECT_EQ(GVUSB_GetDeviceList(0), 0);
    int code = 0;
    char text[GVUSB_TEXT_SIZE] = {};
    EXPECT_EQ(GVUSB_GetLastError(0, &code, text), 0);
    EXPECT_EQ(code, -1109);
    EXPECT_STREQ(text, "GVUSB: (-1109) libUSB-API not available");
}

TEST_F(StartTest, LibusbWithoutCapabilityQueryStillFindsReaders) {
    load("nopnp", [] {
        fake::setCapability(LIBUSB_CAP_HAS_CAPABILITY, false);
        fake::plug("dev1", fake::bulkReader());
    });
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    EXPECT_NE(GVUSB_GetDeviceList(0), 0);
}

TEST_F(StartTest, ConfigurationFileIsOpenedOnceBeforeLibusbIsCalled) {
    int opensBefore = -1;
    load("nopnp", [&] {
        fake::setHook([&](std::string_view function, std::string_view) {
            if (function == "libusb_init") {
                opensBefore = support::configurationOpens();
            }
        });
    });
    fake::setHook(nullptr);
    EXPECT_EQ(opensBefore, 1);
    EXPECT_EQ(support::configurationOpens(), 1);
}

TEST_F(StartTest, ConfigurationFileIsClosed) {
    load(std::nullopt);
    const int before = openFiles();
    load("nopnp");
    EXPECT_EQ(openFiles(), before);
    load("", [] { support::setConfigurationPath("/"); });
    EXPECT_EQ(openFiles(), before);
}

TEST_F(StartTest, UnreadableConfigurationFileIsIgnored) {
    load("nopnp", [] { support::makeConfigurationUnreadable(); });
    EXPECT_EQ(mode(), 1);
    EXPECT_THAT(fake::takeCalls(), ElementsAreArray(callsWithoutFile));
}

// Opening a FIFO without a writer would block, and reading a device may never end.
TEST_F(StartTest, OnlyARegularConfigurationFileIsRead) {
    const std::string fifo = testing::TempDir() + "gvusb_fifo_" + std::to_string(getpid());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {std::string("/"), std::string("/dev/zero"), fifo}) {
        load("", [&] { support::setConfigurationPath(path); });
        EXPECT_EQ(support::configurationOpens(), 1) << path;
        EXPECT_EQ(mode(), 1) << path;
        EXPECT_EQ(updateRate(), 300000u) << path;
        EXPECT_THAT(fake::takeCalls(), ElementsAreArray(callsWithoutFile)) << path;
    }
    unlink(fifo.c_str());
}

TEST_F(StartTest, EnvironmentNamesAnotherConfigurationFile) {
    const std::string path = testing::TempDir() + "gvusb_config_" + std::to_string(getpid());
    std::ofstream(path) << "gvusb_hotplug=7\n";
    setenv("GVUSB_CONFIG", path.c_str(), 1);
    load("nopnp");
    EXPECT_EQ(mode(), 7);
    EXPECT_EQ(support::configurationOpens(), 0) << "the usual file was opened too";
    unlink(path.c_str());
    load("nopnp");
    EXPECT_EQ(mode(), 1) << "a missing file means the defaults, not the usual file";
    setenv("GVUSB_CONFIG", "", 1);
    load("nopnp");
    EXPECT_EQ(mode(), 0) << "an empty variable is no name";
    unsetenv("GVUSB_CONFIG");
}

TEST_F(StartTest, SignalsAreBlockedWhileLibusbStartsItsThread) {
    sigset_t during;
    sigemptyset(&during);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    load("nopnp", [&] {
        fake::setHook([&](std::string_view function, std::string_view) {
            if (function == "libusb_init") {
                pthread_sigmask(SIG_BLOCK, nullptr, &during);
            }
        });
    });
    fake::setHook(nullptr);
    EXPECT_EQ(sigismember(&during, SIGTERM), 1);
    EXPECT_EQ(sigismember(&during, SIGCHLD), 1);
    EXPECT_EQ(sigismember(&during, SIGSEGV), 0);
    sigset_t after;
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    EXPECT_EQ(sigismember(&before, SIGTERM), sigismember(&after, SIGTERM));
}

TEST_F(StartTest, ConfigurationFileIsReadUpToItsFirst1023Bytes) {
    const std::string key = "gvusb_hotplug=7";
    load(std::string(1023 - key.size(), '#') + key);
    EXPECT_EQ(mode(), 7);
    load(std::string(1024 - key.size(), '#') + key); // its value is byte 1024
    EXPECT_EQ(mode(), 1);
    load(std::string(1023, '#') + "nopnp");
    EXPECT_EQ(mode(), 1);
    load(std::string(1019, '#') + "nopnp");
    EXPECT_EQ(mode(), 1);
    load("nopnp" + std::string(100'000, '#'));
    EXPECT_EQ(mode(), 0);
}

TEST_F(StartTest, NumberThatIsTruncatedAtByte1023IsReadUpToThere) {
    const std::string key = "nopnp gvusb_updaterate=25";
    load(std::string(1023 - key.size(), '#') + key + "0");
    EXPECT_EQ(updateRate(), 25000u);
}

TEST_F(StartTest, TimeOfTheLogStartsWithTheLevel) {
    const support::FixedTime now(5000, 42);
    load("nopnp");
    EXPECT_EQ(support::timeReads(), 2); // once for level 0, once for the configured level
    EXPECT_EQ(g_GvUsbStarttime.tv_sec, 5000);
    EXPECT_EQ(g_GvUsbStarttime.tv_usec, 42);
}

TEST_F(StartTest, LogLevelIsTheConfiguredOne) {
    const support::CapturedStdout output;
    for (const int level : {2, 0, -1, INT_MIN}) {
        load("nopnp gvusb_debuglevel=" + std::to_string(level));
        EXPECT_EQ(GVLOG_Level(), level);
        EXPECT_EQ(g_GvUsbMan.m_iDebugLevel, level);
        GVLOG_SetLevel(0);
    }
}

TEST_F(StartTest, LevelOfAnEarlierManagerIsResetWithoutConfiguration) {
    GVLOG_SetLevel(2);
    g_GvUsbMan.SetLastError(-1199);
    const support::CapturedStdout output;
    load(std::nullopt);
    EXPECT_EQ(GVLOG_Level(), 0);
    EXPECT_EQ(relaxed::load(g_GvUsbMan.m_iLastError), 0);
}

// If the thread could not be created, unloading must not join it.
TEST_F(StartTest, LoadingAndUnloadingWorkWithoutWorkerThread) {
    pthread_attr_t usual;
    pthread_attr_t enormous;
    ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
    ASSERT_EQ(pthread_getattr_default_np(&enormous), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&enormous, ~std::size_t{0xFFFF}), 0);
    load(std::nullopt, [&] { pthread_setattr_default_np(&enormous); });
    pthread_setattr_default_np(&usual);
    pthread_attr_destroy(&usual);
    pthread_attr_destroy(&enormous);
    EXPECT_FALSE(g_GvUsbMan.m_bThreadStarted);
    EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), -1112);
    EXPECT_THAT(unload(), ElementsAre("libusb_exit(default)"));
}
