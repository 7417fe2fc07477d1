#include "manager_test.h"

#include "allocation_failure.h"
#include "manager_lists.h"
#include "mutex_probe.h"

#include "device/gvdevice.h"

#include <climits>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ParametersTest : public ManagerTest {
protected:
    static constexpr int driver = -1;
    static constexpr int everyDevice = 0;
    static constexpr int earlier = -1199;

    ParametersTest() { g_GvUsbMan.SetLastError(earlier); }

    // Opens dev1 to dev<count>, with the device IDs 1 to count; the handles start at firstHandle.
    static void openReaders(int count) {
        for (int i = 1; i <= count; ++i) {
            fake::plug("dev" + std::to_string(i), fake::bulkReader(std::to_string(i)));
        }
        ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
        fake::takeCalls();
        g_GvUsbMan.SetLastError(earlier);
    }

    // The result, which must equal the last error.
    int get(int devHnd, const char* key) {
        const int code = g_GvUsbMan.GetDevicePara(devHnd, key, value);
        EXPECT_EQ(lastError(), code);
        return code;
    }
    static int set(int devHnd, const char* key, const char* newValue) {
        const int code = g_GvUsbMan.SetDevicePara(devHnd, key, newValue);
        EXPECT_EQ(lastError(), code);
        return code;
    }

    std::string timeoutOf(int devHnd) { return get(devHnd, "TIMEOUT") == 0 ? value : "?"; }

    static unsigned int updateRate() { return relaxed::load(g_GvUsbMan.m_uiUpdateRate); }
    static bool suspended() { return relaxed::load(g_GvUsbMan.m_bSuspend); }

    char value[GVUSB_PARAMETER_SIZE] = "untouched";
};

} // namespace

TEST_F(ParametersTest, HotPlugModeIsReadAsAnUnsignedNumber) {
    const std::pair<const char*, const char*> modes[] = {{"nopnp", "0"},
                                                         {"", "1"},
                                                         {"gvusb_hotplug=2", "2"},
                                                         {"gvusb_hotplug=7", "7"},
                                                         {"gvusb_hotplug=!", "4294967281"}};
    for (const auto& [configuration, mode] : modes) {
        restart(configuration);
        EXPECT_EQ(get(driver, "HOTPLUG-MODE"), 0);
        EXPECT_STREQ(value, mode);
    }
}

TEST_F(ParametersTest, DriverKeysMayBeWrittenInAnyCase) {
    for (const char* key : {"HOTPLUG-MODE", "hotplug-mode", "HotPlug-Mode"}) {
        EXPECT_EQ(get(driver, key), 0) << key;
    }
    EXPECT_EQ(set(driver, "HotPlug-UpdateRate", "77"), 0);
    EXPECT_EQ(updateRate(), 77u);
    EXPECT_EQ(set(driver, "hotplug-suspend", "0"), 0);
    EXPECT_FALSE(suspended());
}

TEST_F(ParametersTest, DriverKeysAreEitherReadOrWritten) {
    EXPECT_EQ(get(driver, "HOTPLUG-UPDATERATE"), -1150);
    EXPECT_EQ(get(driver, "HOTPLUG-SUSPEND"), -1150);
    EXPECT_EQ(set(driver, "HOTPLUG-MODE", "1"), -1150);
    EXPECT_STREQ(value, "untouched");
    EXPECT_EQ(g_GvUsbMan.m_iHotPlugMode, 0);
}

TEST_F(ParametersTest, OtherKeysAreUnknownToTheDriver) {
    for (const char* key : {"", "TIMEOUT", "HOTPLUG", "HOTPLUG-MODES", " HOTPLUG-MODE", "HOTPLUG_MODE"}) {
        EXPECT_EQ(get(driver, key), -1150) << key;
        EXPECT_EQ(set(driver, key, "1"), -1150) << key;
    }
    EXPECT_STREQ(value, "untouched");
}

TEST_F(ParametersTest, KeysOfAnyLengthAreRefusedAsUnknown) {
    openReaders(1);
    for (const std::size_t length : {127u, 128u, 129u, 100'000u}) {
        SCOPED_TRACE(length);
        std::string key = "HOTPLUG-MODE";
        key.resize(length, 'X');
        for (const int devHnd : {driver, everyDevice, firstHandle}) {
            EXPECT_EQ(get(devHnd, key.c_str()), -1150);
            EXPECT_EQ(set(devHnd, key.c_str(), "1"), -1150);
        }
    }
    EXPECT_STREQ(value, "untouched");
}

TEST_F(ParametersTest, UpdateRateIsGivenInMicroseconds) {
    struct Row {
        const char* text;
        unsigned int microseconds;
    };
    const Row rows[] = {
        {"10", 10},
        {"11", 11},
        {"300000", 300000},
        {"250000ms", 250000},
        {" \t42", 42},
        {"+12", 12},
        {"4294967295", UINT_MAX},
        {"4294967296", UINT_MAX},
        {"4294967306", UINT_MAX},
        {"99999999999999999999999", UINT_MAX},
        {"-1", UINT_MAX},
    };
    for (const auto& [text, microseconds] : rows) {
        g_GvUsbMan.SetLastError(earlier);
        EXPECT_EQ(set(driver, "HOTPLUG-UPDATERATE", text), 0) << text;
        EXPECT_EQ(updateRate(), microseconds) << text;
    }
}

TEST_F(ParametersTest, UpdateRateBelowTenIsOutOfRange) {
    for (const char* text : {"9", "0", "1", "abc", "", " ", "-", "x10"}) {
        EXPECT_EQ(set(driver, "HOTPLUG-UPDATERATE", text), -1151) << text;
        EXPECT_EQ(updateRate(), 300000u) << text;
    }
}

TEST_F(ParametersTest, SuspendAcceptsOnlyZeroAndOne) {
    EXPECT_EQ(set(driver, "HOTPLUG-SUSPEND", "1"), 0);
    EXPECT_TRUE(suspended());
    EXPECT_EQ(set(driver, "HOTPLUG-SUSPEND", "0"), 0);
    EXPECT_FALSE(suspended());
    for (const bool flag : {false, true}) {
        set(driver, "HOTPLUG-SUSPEND", flag ? "1" : "0");
        for (const char* text : {"2", "00", "01", " 1", "1 ", "true", "", "-1"}) {
            EXPECT_EQ(set(driver, "HOTPLUG-SUSPEND", text), -1151) << text;
            EXPECT_EQ(suspended(), flag) << text;
        }
    }
}

TEST_F(ParametersTest, DriverParametersNeedNoMutex) {
    const MutexLock scanLock(g_GvUsbMan.m_mtxScanList);
    const MutexLock listLock(g_GvUsbMan.m_mtxDevList);
    EXPECT_EQ(GVUSB_GetDevicePara(driver, "HOTPLUG-MODE", value), 0);
    EXPECT_EQ(GVUSB_SetDevicePara(driver, "HOTPLUG-SUSPEND", "1"), 0);
    EXPECT_EQ(GVUSB_SetDevicePara(driver, "HOTPLUG-UPDATERATE", "5"), -1151);
}

TEST_F(ParametersTest, HandleSelectsItsReader) {
    openReaders(2);
    EXPECT_EQ(set(firstHandle + 1, "TIMEOUT", "250"), 0);
    EXPECT_EQ(timeoutOf(firstHandle), "1000");
    EXPECT_EQ(timeoutOf(firstHandle + 1), "250");
}

TEST_F(ParametersTest, HandleOfNoReaderIsNotFound) {
    openReaders(1);
    for (const int devHnd : {1, firstHandle + 1, INT_MAX}) {
        EXPECT_EQ(get(devHnd, "TIMEOUT"), -1123) << devHnd;
        EXPECT_EQ(set(devHnd, "TIMEOUT", "250"), -1123) << devHnd;
    }
    EXPECT_STREQ(value, "untouched");
    ASSERT_EQ(GVUSB_CloseDevice(firstHandle), 0);
    EXPECT_EQ(get(firstHandle, "TIMEOUT"), -1123);
}

TEST_F(ParametersTest, ReadersErrorIsReturned) {
    openReaders(1);
    EXPECT_EQ(get(firstHandle, "TIME-OUT"), -1150);
    EXPECT_EQ(set(firstHandle, "TIMEOUT", "0"), -1151);
    fake::setString("dev1", 10, LIBUSB_ERROR_PIPE);
    EXPECT_EQ(get(firstHandle, "TYPENUMBER"), -1168);
    fake::failNext("libusb_reset_device", LIBUSB_ERROR_IO);
    EXPECT_EQ(set(firstHandle, "RESETDEVICE", ""), -1157);
}

TEST_F(ParametersTest, ReadingFromEveryDeviceReadsFromTheFirst) {
    openReaders(2);
    EXPECT_EQ(get(everyDevice, "DEVICE-ID"), 0);
    EXPECT_STREQ(value, "1");
    EXPECT_EQ(get(everyDevice, "TYPENUMBER"), 0);
    EXPECT_THAT(fake::takeCalls(), ElementsAre("libusb_get_string_descriptor_ascii(hnd1, 10, 256) = 2"));
}

TEST_F(ParametersTest, ReadingSkipsAHoleInTheList) {
    openReaders(1);
    Devices devices = deviceList();
    devices.insert(devices.begin(), nullptr);
    setDeviceList(devices);
    EXPECT_EQ(get(everyDevice, "DEVICE-ID"), 0);
    EXPECT_STREQ(value, "1");
}

TEST_F(ParametersTest, ReadingFromEveryDeviceNeedsOne) {
    LogAt log(1);
    EXPECT_EQ(get(everyDevice, "TIMEOUT"), -1100);
    EXPECT_STREQ(value, "untouched");
    EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(ParametersTest, WritingToEveryDeviceReachesAll) {
    openReaders(3);
    Devices devices = deviceList();
    devices.insert(devices.begin() + 1, nullptr);
    setDeviceList(devices);
    EXPECT_EQ(set(everyDevice, "TIMEOUT", "250"), 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(timeoutOf(firstHandle + i), "250") << i;
    }
}

TEST_F(ParametersTest, WritingToEveryDeviceStopsAtTheFirstFailure) {
    openReaders(3);
    fake::failNext("libusb_reset_device", LIBUSB_ERROR_IO, "dev2");
    EXPECT_EQ(set(everyDevice, "RESETDEVICE", ""), -1157);
    EXPECT_THAT(fake::takeCalls(),
                ElementsAre("libusb_reset_device(hnd1) = 0", "libusb_reset_device(hnd2) = -1"));
    int code = 1;
    char text[GVUSB_TEXT_SIZE];
    GVUSB_GetLastError(firstHandle + 1, &code, text);
    EXPECT_EQ(code, -1157);
}

TEST_F(ParametersTest, WritingToEveryDeviceWithoutAnyReturnsTheEarlierError) {
    EXPECT_EQ(set(everyDevice, "TIMEOUT", "250"), earlier);
    EXPECT_EQ(set(everyDevice, "NO SUCH KEY", "250"), earlier);
    g_GvUsbMan.SetLastError(0);
    EXPECT_EQ(set(everyDevice, "TIMEOUT", "0"), 0);
    setDeviceList({nullptr, nullptr});
    g_GvUsbMan.SetLastError(earlier);
    EXPECT_EQ(set(everyDevice, "TIMEOUT", "250"), earlier);
}

TEST_F(ParametersTest, ReadersAreReadAndWrittenUnderTheDeviceListMutex) {
    openReaders(1);
    int calls = 0;
    fake::setHook([&](std::string_view function, std::string_view) {
        ++calls;
        EXPECT_TRUE(isGuarded(function));
        EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxScanList));
    });
    for (const int devHnd : {everyDevice, firstHandle}) {
        get(devHnd, "TYPENUMBER");
        set(devHnd, "RESETDEVICE", "");
    }
    fake::setHook(nullptr);
    EXPECT_EQ(calls, 4);
    EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxDevList));
}

TEST_F(ParametersTest, LogShowsHandleKeyValueAndCode) {
    openReaders(1);
    LogAt log(1);
    get(driver, "HOTPLUG-MODE");
    EXPECT_THAT(log.takeLines(), ElementsAre("[get device para] Hnd(0xffffffff) HOTPLUG-MODE = '0' => rc=0"));
    set(driver, "hotplug-updaterate", "5");
    EXPECT_THAT(log.takeLines(),
                ElementsAre("[set device para] Hnd(0xffffffff) hotplug-updaterate = '5' => rc=fffffb81"));
    get(firstHandle, "Timeout");
    EXPECT_THAT(log.takeLines(), ElementsAre("[get device para] Hnd(0x10000001) Timeout = '1000' => rc=0"));
    set(firstHandle, "TIMEOUT", "250ms");
    EXPECT_THAT(log.takeLines(), ElementsAre("[set device para] Hnd(0x10000001) TIMEOUT = '250ms' => rc=0"));
    set(driver, "HOTPLUG-SUSPEND", "");
    EXPECT_THAT(log.takeLines(),
                ElementsAre("[set device para] Hnd(0xffffffff) HOTPLUG-SUSPEND = '' => rc=fffffb81"));
}

TEST_F(ParametersTest, LogShowsTheFirstHandleForAReadAndZeroForAWrite) {
    openReaders(1);
    LogAt log(1);
    get(everyDevice, "TIMEOUT");
    set(everyDevice, "TIMEOUT", "77");
    EXPECT_THAT(log.takeLines(), ElementsAre("[get device para] Hnd(0x10000001) TIMEOUT = '1000' => rc=0",
                                             "[set device para] Hnd(0x0) TIMEOUT = '77' => rc=0"));
}

TEST_F(ParametersTest, LogOfAFailureShowsTheUnchangedValue) {
    LogAt log(1);
    get(driver, "NONE");
    get(firstHandle, "TIMEOUT");
    g_GvUsbMan.SetLastError(earlier);
    set(everyDevice, "TIMEOUT", "77");
    EXPECT_THAT(log.takeLines(),
                ElementsAre("[get device para] Hnd(0xffffffff) NONE = 'untouched' => rc=fffffb82",
                            "[get device para] Hnd(0x10000001) TIMEOUT = 'untouched' => rc=fffffb9d",
                            "[set device para] Hnd(0x0) TIMEOUT = '77' => rc=fffffb51"));
}

TEST_F(ParametersTest, LogStaysWithinTheValueBuffer) {
    std::string memory(GVUSB_PARAMETER_SIZE, 'v');
    memory += "behind the buffer";
    LogAt log(1);
    EXPECT_EQ(GVUSB_GetDevicePara(driver, "NONE", memory.data()), -1150);
    EXPECT_THAT(log.takeLines(), ElementsAre("[get device para] Hnd(0xffffffff) NONE = '" +
                                             std::string(256, 'v') + "' => rc=fffffb82"));
}

TEST_F(ParametersTest, LogShowsAWrittenValueCompletely) {
    const std::string longValue(100'000, '7');
    LogAt log(1);
    set(driver, "NONE", longValue.c_str());
    EXPECT_THAT(log.takeLines(),
                ElementsAre("[set device para] Hnd(0xffffffff) NONE = '" + longValue + "' => rc=fffffb82"));
}

TEST_F(ParametersTest, NothingIsLoggedAtLevelZero) {
    LogAt log(0);
    get(driver, "HOTPLUG-MODE");
    set(driver, "HOTPLUG-SUSPEND", "1");
    set(everyDevice, "TIMEOUT", "77");
    EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(ParametersTest, OutOfMemoryReleasesTheMutex) {
    if (!support::allocationsAreWatched) {
        GTEST_SKIP() << "the sanitizer replaces operator new";
    }
    openReaders(1);
    LogAt log(1);
    for (const bool writing : {false, true}) {
        bool ran = false;
        for (std::size_t n = 1; !ran; ++n) {
            ASSERT_LT(n, 100u);
            const auto failure = support::failAllocation(n);
            try {
                if (writing) {
                    GVUSB_SetDevicePara(firstHandle, "RESETDEVICE",
                                        "a value that does not fit a short string");
                } else {
                    GVUSB_GetDevicePara(everyDevice, "TYPENUMBER", value);
                }
            } catch (const std::bad_alloc&) {
            }
            const support::AllocationPause pause;
            EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxDevList)) << n;
            ran = !failure.happened();
        }
    }
}
