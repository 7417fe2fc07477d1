// Which exported functions clear the manager's last error first, which keep it, and how to fetch it.
#include "gvusb.h"

#include "manager_test.h"
#include "mutex_probe.h"

#include "base/log.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

namespace fake = fake_libusb;
using fake::Transfer;

class LastError : public ManagerTest {
protected:
    static constexpr int earlier = -1199;
    static constexpr const char* protocol = "TESK-RCI2";

    static int lastError() { return relaxed::load(g_GvUsbMan.m_iLastError); }

    // Plug in and open dev1; return its handle.
    static int openReader() {
        fake::plug("dev1", fake::bulkReader("1A2B3C"));
        EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
        const int devHnd = GVUSB_OpenDevice(0x1A2B3C);
        EXPECT_GT(devHnd, 0);
        return devHnd;
    }

    // Start `run` with an earlier error, and return the last error at its first libusb call.
    static std::optional<int> lastErrorOnTheWay(const std::function<void()>& run) {
        std::optional<int> seen;
        g_GvUsbMan.SetLastError(earlier);
        fake::setHook([&](std::string_view, std::string_view) {
            if (!seen) {
                seen = lastError();
            }
        });
        run();
        fake::setHook(nullptr);
        return seen;
    }

    static int after(const std::function<void()>& run) {
        g_GvUsbMan.SetLastError(earlier);
        run();
        return lastError();
    }

    char value[GVUSB_PARAMETER_SIZE] = {};
    const unsigned char frame[3] = {1, 2, 3};
    unsigned char buffer[8] = {};
};

TEST_F(LastError, ScansClearItFirst) {
    fake::plug("dev1", fake::bulkReader());
    EXPECT_EQ(lastErrorOnTheWay([] { GVUSB_Scan(GVUSB_SCAN_ALL, nullptr); }), 0);
    EXPECT_EQ(lastErrorOnTheWay([] { GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr); }), 0);
    EXPECT_EQ(after([] { EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_NOTHING, nullptr), 0); }), 0);
    EXPECT_EQ(after([] { EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_NOTHING, nullptr), 0); }), 0);
}

TEST_F(LastError, ScanListFunctionsClearItFirst) {
    openReader();
    EXPECT_EQ(lastErrorOnTheWay([&] { GVUSB_GetScanListPara(0, "TYPENUMBER", value); }), 0);
    EXPECT_EQ(after([] { EXPECT_EQ(GVUSB_GetScanListSize(), 1); }), 0);
    EXPECT_EQ(after([] { EXPECT_EQ(GVUSB_ClearScanList(), 0); }), 0);
}

TEST_F(LastError, VersionClearsIt) {
    EXPECT_EQ(after([] { EXPECT_STREQ(GVUSB_GetDLLVersion(), "07.01.00"); }), 0);
}

// The error is cleared even before the function locks the registrations.
TEST_F(LastError, EventHandlerFunctionsClearItFirst) {
    GVUSB_EVENT_INIT registration = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0,
                                     [](int, unsigned int, const char*) {}};
    for (const auto function : {&GVUSB_AddEventHandler, &GVUSB_DelEventHandler}) {
        g_GvUsbMan.SetLastError(earlier);
        std::thread caller;
        {
            const MutexLock lock(g_MtxEvtInitAry);
            caller = std::thread([&] { EXPECT_EQ(function(0, &registration), 0); });
            const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
            while (lastError() == earlier && std::chrono::steady_clock::now() < end) {
                std::this_thread::yield();
            }
            EXPECT_EQ(lastError(), 0);
        }
        caller.join();
    }
}

TEST_F(LastError, ReaderFunctionsKeepItUntilTheirResultIsKnown) {
    const int devHnd = openReader();
    EXPECT_EQ(lastErrorOnTheWay([&] { GVUSB_Transmit(devHnd, protocol, frame, 3); }), earlier);
    EXPECT_EQ(lastErrorOnTheWay([&] { GVUSB_Receive(devHnd, protocol, buffer, 8); }), earlier);
    EXPECT_EQ(lastErrorOnTheWay([&] { GVUSB_Transceive(devHnd, protocol, 0, frame, 3, buffer, 8); }),
              earlier);
    EXPECT_EQ(lastErrorOnTheWay([&] { GVUSB_IsDevicePresent(devHnd); }), earlier);
    EXPECT_EQ(lastErrorOnTheWay([&] { GVUSB_GetDevicePara(devHnd, "TYPENUMBER", value); }), earlier);
    EXPECT_EQ(lastErrorOnTheWay([&] { GVUSB_SetDevicePara(devHnd, "RESETDEVICE", ""); }), earlier);
    EXPECT_EQ(lastErrorOnTheWay([&] { GVUSB_CloseDevice(devHnd); }), earlier);
    EXPECT_EQ(lastErrorOnTheWay([&] { GVUSB_OpenDevice(0x1A2B3C); }), earlier);
}

TEST_F(LastError, OpeningAnOpenReaderKeepsIt) {
    const int devHnd = openReader();
    EXPECT_EQ(after([&] { EXPECT_EQ(GVUSB_OpenDevice(0x1A2B3C), devHnd); }), earlier);
}

TEST_F(LastError, IteratingOverTheDeviceListKeepsIt) {
    const int devHnd = openReader();
    for (const int from : {0, -1, -1199}) {
        EXPECT_EQ(after([&] { EXPECT_EQ(GVUSB_GetDeviceList(from), devHnd); }), earlier) << from;
    }
    EXPECT_EQ(after([&] { EXPECT_EQ(GVUSB_GetDeviceList(devHnd), 0); }), earlier);
    EXPECT_EQ(after([&] { EXPECT_EQ(GVUSB_GetDeviceList(5), 0); }), earlier);
}

TEST_F(LastError, FindingAHandleKeepsIt) {
    const int devHnd = openReader();
    EXPECT_EQ(after([&] { EXPECT_EQ(GVUSB_GetDeviceHnd(0x1A2B3C), devHnd); }), earlier);
    EXPECT_EQ(after([&] { EXPECT_EQ(GVUSB_GetDeviceHnd(0x1A2B3D), -1144); }), -1144);
}

TEST_F(LastError, ChangingEveryReaderReturnsItIfThereAreNone) {
    EXPECT_EQ(GVUSB_CloseDevice(0), -1121);
    EXPECT_EQ(GVUSB_SetDevicePara(0, "TIMEOUT", "500"), -1121);
    EXPECT_EQ(lastError(), -1121);
}

TEST_F(LastError, TransmitAndTransceiveSetItToZeroAndReceiveToItsCount) {
    const int devHnd = openReader();
    EXPECT_EQ(after([&] { EXPECT_EQ(GVUSB_Transmit(devHnd, protocol, frame, 3), 0); }), 0);
    EXPECT_EQ(after([&] { EXPECT_EQ(GVUSB_Receive(devHnd, protocol, buffer, 8), 3); }), 3);
    EXPECT_EQ(after([&] { EXPECT_EQ(GVUSB_Transceive(devHnd, protocol, 0, frame, 3, buffer, 8), 3); }), 0);
}

TEST_F(LastError, FetchingTheManagersReturnsItsTextAndClearsIt) {
    ASSERT_EQ(GVUSB_CloseDevice(0), -1121);
    int code = 1;
    char text[GVUSB_TEXT_SIZE] = {};
    EXPECT_EQ(GVUSB_GetLastError(0, &code, text), 0);
    EXPECT_EQ(code, -1121);
    EXPECT_STREQ(text, "GVUSB: (-1121) device handle is null");
    EXPECT_EQ(GVUSB_GetLastError(0, &code, text), 0);
    EXPECT_EQ(code, 0);
    EXPECT_STREQ(text, "GVUSB: OK");
}

TEST_F(LastError, FetchingACountReportsThatItIsNoCode) {
    const int devHnd = openReader();
    ASSERT_EQ(GVUSB_Transmit(devHnd, protocol, frame, 3), 0);
    ASSERT_EQ(GVUSB_Receive(devHnd, protocol, buffer, 8), 3);
    int code = 0;
    char text[GVUSB_TEXT_SIZE] = {};
    EXPECT_EQ(GVUSB_GetLastError(0, &code, text), -1155);
    EXPECT_EQ(code, 3);
    EXPECT_STREQ(text, "GVUSB: Unknown Error: 0x3 (3)");
    EXPECT_EQ(GVUSB_GetLastError(0, &code, text), 0);
    EXPECT_EQ(code, -1155);
    EXPECT_STREQ(text, "GVUSB: (-1155) unknown error code");
}

TEST_F(LastError, FetchingWithoutTextBufferStoresItsOwnError) {
    g_GvUsbMan.SetLastError(-1123);
    int code = 0;
    EXPECT_EQ(GVUSB_GetLastError(0, &code, nullptr), -1102);
    EXPECT_EQ(code, -1123);
    EXPECT_EQ(lastError(), -1102);
}

TEST_F(LastError, FetchingAReadersReturnsItsOwnAndKeepsIt) {
    const int devHnd = openReader();
    ASSERT_EQ(GVUSB_SetDevicePara(devHnd, "TIMEOUT", "0"), -1151);
    g_GvUsbMan.SetLastError(earlier);
    for (int time = 0; time < 2; ++time) {
        int code = 0;
        char text[GVUSB_TEXT_SIZE] = {};
        EXPECT_EQ(GVUSB_GetLastError(devHnd, &code, text), 0);
        EXPECT_EQ(code, -1151);
        EXPECT_STREQ(text, "GVUSB: (-1151) parameter out of range");
        EXPECT_EQ(lastError(), 0);
    }
}

TEST_F(LastError, HandlesThatAreNotOpenAreNotFound) {
    openReader();
    for (const int devHnd : {5, -1, -1199, 0x1FFFFFFF}) {
        SCOPED_TRACE(devHnd);
        int code = 0;
        char text[GVUSB_TEXT_SIZE] = {};
        g_GvUsbMan.SetLastError(earlier);
        EXPECT_EQ(GVUSB_GetLastError(devHnd, &code, text), 0);
        EXPECT_EQ(code, -1123);
        EXPECT_STREQ(text, "GVUSB: (-1123) no device handle found");
        EXPECT_EQ(lastError(), 0);
    }
}

TEST_F(LastError, NewManagerHasNone) {
    restart(quiet);
    int code = 1;
    char text[GVUSB_TEXT_SIZE] = {};
    EXPECT_EQ(GVUSB_GetLastError(0, &code, text), 0);
    EXPECT_EQ(code, 0);
    EXPECT_STREQ(text, "GVUSB: OK");
}

} // namespace
