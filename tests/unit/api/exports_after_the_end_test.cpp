// Calls after the manager is destroyed: from another library's destructor, or from an atexit() function that
// runs after ours. Each returns a code and does not access the manager.
#include "gvusb.h"

#include "manager_test.h"

#include <functional>
#include <new>
#include <string>

#include <gtest/gtest.h>

namespace {

namespace fake = fake_libusb;

class ExportsAfterTheEnd : public ManagerTest {
protected:
    ExportsAfterTheEnd() {
        fake::plug("dev1", fake::bulkReader("1A2B3C"));
        handle_ = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr);
        EXPECT_GT(handle_, 0);
        g_GvUsbMan.~GVDrvHnd();
        fake::takeCalls();
    }
    ~ExportsAfterTheEnd() override {
        EXPECT_EQ(fake::takeCallText(), "");
        new (&g_GvUsbMan) GVDrvHnd;
    }

    int handle() const { return handle_; }

private:
    int handle_ = 0;
};

TEST_F(ExportsAfterTheEnd, FunctionsThatNeedTheManagerReportThatLibusbIsNotAvailable) {
    char value[GVUSB_PARAMETER_SIZE] = "";
    unsigned char bytes[4] = {1, 2, 3, 4};
    GVUSB_SCANSEARCH search = {};
    GVUSB_EVENT_INIT registration = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0,
                                     [](int, unsigned int, const char*) {}};
    const std::pair<const char*, std::function<int()>> calls[] = {
        {"Scan", [&] { return GVUSB_Scan(GVUSB_SCAN_ALL, nullptr); }},
        {"ScanAndOpen", [&] { return GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST | GVUSB_SCAN_SEARCH, &search); }},
        {"GetScanListPara", [&] { return GVUSB_GetScanListPara(0, "TIMEOUT", value); }},
        {"AddEventHandler", [&] { return GVUSB_AddEventHandler(0, &registration); }},
        {"DelEventHandler", [&] { return GVUSB_DelEventHandler(0, &registration); }},
        {"OpenDevice", [&] { return GVUSB_OpenDevice(0x1A2B3C); }},
        {"CloseDevice", [&] { return GVUSB_CloseDevice(handle()); }},
        {"IsDevicePresent", [&] { return GVUSB_IsDevicePresent(handle()); }},
        {"GetDevicePara", [&] { return GVUSB_GetDevicePara(handle(), "TIMEOUT", value); }},
        {"GetDevicePara of the driver", [&] { return GVUSB_GetDevicePara(-1, "HOTPLUG-MODE", value); }},
        {"SetDevicePara", [&] { return GVUSB_SetDevicePara(0, "TIMEOUT", "5"); }},
        {"GetDeviceHnd", [&] { return GVUSB_GetDeviceHnd(0x1A2B3C); }},
        {"Transceive",
         [&] {
             return GVUSB_Transceive(handle(), GVUSB_PROTOCOL, 0, bytes, sizeof bytes, bytes, sizeof bytes);
         }},
        {"Transmit", [&] { return GVUSB_Transmit(handle(), GVUSB_PROTOCOL, bytes, sizeof bytes); }},
        {"Receive", [&] { return GVUSB_Receive(handle(), GVUSB_PROTOCOL, bytes, sizeof bytes); }},
    };
    for (const auto& [name, call] : calls) {
        EXPECT_EQ(call(), GVUSB_ERR_LIBUSB_API) << name;
    }
    EXPECT_STREQ(value, "");
}

TEST_F(ExportsAfterTheEnd, ListsAreEmpty) {
    EXPECT_EQ(GVUSB_GetScanListSize(), 0);
    EXPECT_EQ(GVUSB_ClearScanList(), 0);
    EXPECT_EQ(GVUSB_GetDeviceList(0), 0);
}

TEST_F(ExportsAfterTheEnd, ArgumentsAreCheckedFirst) {
    EXPECT_EQ(GVUSB_CloseDevice(-7), GVUSB_ERR_NEGATIVE_HANDLE);
    EXPECT_EQ(GVUSB_AddEventHandler(0, nullptr), GVUSB_ERR_NULL_POINTER);
}

TEST_F(ExportsAfterTheEnd, TextsAndLastErrorsCanBeRead) {
    int code = 0;
    char text[GVUSB_TEXT_SIZE] = "";
    EXPECT_EQ(GVUSB_OpenDevice(1), GVUSB_ERR_LIBUSB_API);
    EXPECT_EQ(GVUSB_GetLastError(0, &code, text), 0);
    EXPECT_EQ(code, GVUSB_ERR_LIBUSB_API);
    EXPECT_STREQ(text, "GVUSB: (-1109) libUSB-API not available");
    EXPECT_EQ(GVUSB_GetLastError(handle(), &code, text), 0);
    EXPECT_EQ(code, GVUSB_ERR_LIBUSB_API);
    EXPECT_STREQ(GVUSB_GetDLLVersion(), "07.01.00");
    EXPECT_EQ(GVUSB_GetDrvVersion(), GVUSB_ERR_UNSUPPORTED_METHOD);
}

} // namespace
