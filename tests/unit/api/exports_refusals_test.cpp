// Which arguments the exported functions reject, and in which order they check them.
#include "gvusb.h"

#include "captured_stdout.h"
#include "manager_test.h"

#include "base/log.h"

#include <climits>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Refusal {
    const char* call;
    std::function<int()> run;
    int code;
};

class Refusals : public ManagerTest {
protected:
    static constexpr int earlier = -1199;
    static constexpr int unknownHandle = 5;
    static constexpr const char* protocol = "TESK-RCI2";

    ~Refusals() override { GVLOG_SetLevel(0); }

    static int lastError() { return relaxed::load(g_GvUsbMan.m_iLastError); }

    void expectRefused(const std::vector<Refusal>& refusals) {
        support::CapturedStdout output;
        GVLOG_SetLevel(3);
        for (const auto& [call, run, code] : refusals) {
            SCOPED_TRACE(call);
            g_GvUsbMan.SetLastError(earlier);
            EXPECT_EQ(run(), code);
            EXPECT_EQ(lastError(), code);
        }
        GVLOG_SetLevel(0);
        EXPECT_EQ(output.takeText(), "");
        EXPECT_EQ(fake_libusb::takeCallText(), "");
        EXPECT_STREQ(value, "untouched");
        EXPECT_EQ(buffer[0], 0xAA);
    }

    char value[GVUSB_PARAMETER_SIZE] = "untouched";
    const unsigned char frame[2] = {1, 2};
    unsigned char buffer[2] = {0xAA, 0xAA};
    GVUSB_EVENT_INIT registration = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0,
                                     [](int, unsigned int, const char*) {}};
};

TEST_F(Refusals, RequiredPointersThatAreNull) {
    expectRefused({
        {"scan-list parameter, no key", [&] { return GVUSB_GetScanListPara(0, nullptr, value); }, -1102},
        {"scan-list parameter, no value", [&] { return GVUSB_GetScanListPara(0, "TIMEOUT", nullptr); },
         -1102},
        {"scan-list parameter, neither", [&] { return GVUSB_GetScanListPara(-1, nullptr, nullptr); }, -1102},
        {"add handler", [&] { return GVUSB_AddEventHandler(0, nullptr); }, -1102},
        {"add handler, handle not 0", [&] { return GVUSB_AddEventHandler(7, nullptr); }, -1102},
        {"delete handler", [&] { return GVUSB_DelEventHandler(0, nullptr); }, -1102},
        {"delete handler, handle not 0", [&] { return GVUSB_DelEventHandler(7, nullptr); }, -1102},
        {"error text", [&] { return GVUSB_GetErrorText(0, nullptr); }, -1102},
        {"error text of an unknown code", [&] { return GVUSB_GetErrorText(5, nullptr); }, -1102},
    });
}

TEST_F(Refusals, HandlesThatNoReaderCanHave) {
    expectRefused({
        {"close negative", [] { return GVUSB_CloseDevice(-7); }, -1122},
        {"close -1", [] { return GVUSB_CloseDevice(-1); }, -1122},
        {"close lowest", [] { return GVUSB_CloseDevice(INT_MIN); }, -1122},
        {"close 0", [] { return GVUSB_CloseDevice(0); }, -1121},
        {"present negative", [] { return GVUSB_IsDevicePresent(-7); }, -1122},
        {"present -1", [] { return GVUSB_IsDevicePresent(-1); }, -1122},
        {"present lowest", [] { return GVUSB_IsDevicePresent(INT_MIN); }, -1122},
        {"present 0", [] { return GVUSB_IsDevicePresent(0); }, -1121},
    });
}

TEST_F(Refusals, DriverVersionIsNotSupported) {
    expectRefused({{"driver version", [] { return GVUSB_GetDrvVersion(); }, -1107}});
}

TEST_F(Refusals, ParametersOfHandlesBelowTheDrivers) {
    expectRefused({
        {"get -2", [&] { return GVUSB_GetDevicePara(-2, "TIMEOUT", value); }, -1122},
        {"get lowest", [&] { return GVUSB_GetDevicePara(INT_MIN, "TIMEOUT", value); }, -1122},
        {"get -2, no pointers", [&] { return GVUSB_GetDevicePara(-2, nullptr, nullptr); }, -1122},
        {"set -2", [&] { return GVUSB_SetDevicePara(-2, "TIMEOUT", "1"); }, -1122},
        {"set lowest", [&] { return GVUSB_SetDevicePara(INT_MIN, "TIMEOUT", "1"); }, -1122},
        {"set -2, no pointers", [&] { return GVUSB_SetDevicePara(-2, nullptr, nullptr); }, -1122},
    });
}

TEST_F(Refusals, ParametersWithoutKeyOrValue) {
    for (const int devHnd : {-1, 0, unknownHandle}) {
        SCOPED_TRACE(devHnd);
        expectRefused({
            {"get, no key", [&] { return GVUSB_GetDevicePara(devHnd, nullptr, value); }, -1102},
            {"get, no value", [&] { return GVUSB_GetDevicePara(devHnd, "TIMEOUT", nullptr); }, -1102},
            {"set, no key", [&] { return GVUSB_SetDevicePara(devHnd, nullptr, "1"); }, -1102},
            {"set, no value", [&] { return GVUSB_SetDevicePara(devHnd, "TIMEOUT", nullptr); }, -1102},
        });
    }
}

// Every combination of valid and invalid arguments: the first invalid one in the order handle, pointers, send
// length, receive size determines the code. Valid calls reach the manager and fail because no reader has the
// handle.
TEST_F(Refusals, TransferArgumentsAreCheckedInOrder) {
    const std::pair<int, int> handles[] = {
        {-1, -1122}, {INT_MIN, -1122}, {0, -1121}, {unknownHandle, -1123}, {INT_MAX, -1123}};
    for (const auto& handle : handles) {
        const int devHnd = handle.first;
        const int handleCode = handle.second;
        for (unsigned int bad = 0; bad < 32; ++bad) {
            const char* const name = (bad & 1) != 0 ? nullptr : protocol;
            const unsigned char* const send = (bad & 2) != 0 ? nullptr : frame;
            unsigned char* const receive = (bad & 4) != 0 ? nullptr : buffer;
            const unsigned int length = (bad & 8) != 0 ? 0 : 2;
            const unsigned int size = (bad & 16) != 0 ? 0 : 2;
            const auto expected = [&](bool pointersGood, bool sends, bool receives) {
                if (handleCode != -1123) {
                    return handleCode;
                }
                if (!pointersGood) {
                    return -1102;
                }
                if (sends && length == 0) {
                    return -1131;
                }
                return receives && size == 0 ? -1134 : -1123;
            };
            SCOPED_TRACE(testing::Message() << "handle " << devHnd << ", bad arguments " << bad);
            expectRefused({
                {"transceive", [&] { return GVUSB_Transceive(devHnd, name, 0, send, length, receive, size); },
                 expected(name != nullptr && send != nullptr && receive != nullptr, true, true)},
                {"transmit", [&] { return GVUSB_Transmit(devHnd, name, send, length); },
                 expected(name != nullptr && send != nullptr, true, false)},
                {"receive", [&] { return GVUSB_Receive(devHnd, name, receive, size); },
                 expected(name != nullptr && receive != nullptr, false, true)},
            });
        }
    }
}

TEST_F(Refusals, ThirdArgumentOfTransceiveIsNotChecked) {
    for (const int reserved : {INT_MIN, -1, 0, 1, INT_MAX}) {
        expectRefused(
            {{"transceive",
              [&] { return GVUSB_Transceive(unknownHandle, protocol, reserved, frame, 2, buffer, 2); },
              -1123}});
    }
}

TEST_F(Refusals, LastErrorWithoutTextBufferReturnsOnlyTheCode) {
    int code = 0;
    expectRefused({{"manager", [&] { return GVUSB_GetLastError(0, &code, nullptr); }, -1102}});
    EXPECT_EQ(code, earlier);
    expectRefused({{"reader", [&] { return GVUSB_GetLastError(unknownHandle, &code, nullptr); }, -1102}});
    EXPECT_EQ(code, -1123);
}

} // namespace
