#include "manager_lists.h"
#include "manager_test.h"
#include "mutex_probe.h"

#include <algorithm>
#include <new>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int noHandle = GVUSB_ERR_HANDLE_NOT_FOUND;
constexpr unsigned char frame[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};

class FramesTest : public ManagerTest {};

} // namespace

TEST_F(FramesTest, PresenceOfAnOpenReaderFollowsTheReader) {
    const int devHnd = openReader("dev1", "1A2B3C");
    g_GvUsbMan.SetLastError(-1111);
    EXPECT_EQ(GVUSB_IsDevicePresent(devHnd), 1);
    EXPECT_EQ(lastError(), 0);

    fake::unplug("dev1");
    g_GvUsbMan.SetLastError(-1111);
    EXPECT_EQ(GVUSB_IsDevicePresent(devHnd), 0);
    EXPECT_EQ(lastError(), 0);
    EXPECT_EQ(g_GvUsbMan.GetLastError(devHnd), -1137);
}

TEST_F(FramesTest, TransceiveReturnsTheCountAndClearsTheLastError) {
    const int devHnd = openReader("dev1", "1A2B3C");
    unsigned char answer[64] = {};
    g_GvUsbMan.SetLastError(-1111);
    EXPECT_EQ(g_GvUsbMan.Transceive(devHnd, "tesk-rci2", frame, sizeof frame, answer, sizeof answer), 12);
    EXPECT_EQ(lastError(), 0);
    EXPECT_THAT(fake::frames("dev1"), ElementsAre(fake::Bytes(frame, frame + sizeof frame)));
    EXPECT_TRUE(std::equal(frame, frame + sizeof frame, answer));
}

TEST_F(FramesTest, TransceiveRecordsTheReadersFailure) {
    const int devHnd = openReader("dev1", "1A2B3C");
    unsigned char answer[64] = {};
    EXPECT_EQ(g_GvUsbMan.Transceive(devHnd, "OTHER", frame, sizeof frame, answer, sizeof answer), -1132);
    EXPECT_EQ(lastError(), -1132);
    EXPECT_EQ(g_GvUsbMan.GetLastError(devHnd), -1132);
}

TEST_F(FramesTest, TransmitRecordsZeroOrTheReadersFailure) {
    const int devHnd = openReader("dev1", "1A2B3C");
    g_GvUsbMan.SetLastError(-1111);
    EXPECT_EQ(g_GvUsbMan.Transmit(devHnd, "TESK-RCI2", frame, sizeof frame), 0);
    EXPECT_EQ(lastError(), 0);
    EXPECT_THAT(fake::frames("dev1"), ElementsAre(fake::Bytes(frame, frame + sizeof frame)));

    EXPECT_EQ(g_GvUsbMan.Transmit(devHnd, "OTHER", frame, sizeof frame), -1132);
    EXPECT_EQ(lastError(), -1132);
}

TEST_F(FramesTest, ReceiveLeavesItsCountAsTheLastError) {
    const int devHnd = openReader("dev1", "1A2B3C");
    ASSERT_EQ(GVUSB_Transmit(devHnd, "TESK-RCI2", frame, sizeof frame), 0);
    unsigned char buffer[64] = {};
    EXPECT_EQ(GVUSB_Receive(devHnd, "TESK-RCI2", buffer, sizeof buffer), 12);
    EXPECT_EQ(lastError(), 12);
    EXPECT_TRUE(std::equal(frame, frame + sizeof frame, buffer));

    int code = 0;
    char text[GVUSB_TEXT_SIZE] = {};
    EXPECT_EQ(GVUSB_GetLastError(0, &code, text), -1155);
    EXPECT_EQ(code, 12);
    EXPECT_STREQ(text, "GVUSB: Unknown Error: 0xC (12)");

    EXPECT_EQ(GVUSB_Receive(devHnd, "TESK-RCI2", buffer, sizeof buffer), -1130);
    EXPECT_EQ(lastError(), -1130);
}

TEST_F(FramesTest, UnknownHandleIsRefusedAndRecorded) {
    openReader("dev1", "1A2B3C");
    fake::takeCalls();
    unsigned char buffer[64] = {};
    const auto refuses = [](int result) {
        EXPECT_EQ(result, noHandle);
        EXPECT_EQ(lastError(), noHandle);
        g_GvUsbMan.SetLastError(0);
    };
    refuses(GVUSB_IsDevicePresent(77));
    refuses(GVUSB_Transceive(77, "TESK-RCI2", 0, frame, sizeof frame, buffer, sizeof buffer));
    refuses(GVUSB_Transmit(77, "TESK-RCI2", frame, sizeof frame));
    refuses(GVUSB_Receive(77, "TESK-RCI2", buffer, sizeof buffer));
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_F(FramesTest, DeviceListMutexIsHeldWhileAReaderIsUsed) {
    const int devHnd = openReader("dev1", "1A2B3C");
    int used = 0;
    fake::setHook([&](std::string_view function, std::string_view) {
        ++used;
        EXPECT_TRUE(isGuarded(function));
        EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxScanList));
    });
    unsigned char buffer[64] = {};
    GVUSB_IsDevicePresent(devHnd);
    GVUSB_Transceive(devHnd, "TESK-RCI2", 0, frame, sizeof frame, buffer, sizeof buffer);
    GVUSB_Transmit(devHnd, "TESK-RCI2", frame, sizeof frame);
    GVUSB_Receive(devHnd, "TESK-RCI2", buffer, sizeof buffer);
    fake::setHook({});
    EXPECT_GE(used, 5);
    EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxDevList));
}

TEST_F(FramesTest, DeviceListMutexIsFreeAgainAfterAnException) {
    const int devHnd = openReader("dev1", "1A2B3C");
    unsigned char buffer[64] = {};
    fake::setHook([](std::string_view function, std::string_view) {
        if (function != "libusb_alloc_transfer") {
            throw std::bad_alloc();
        }
    });
    const auto throws = [](auto use) {
        EXPECT_THROW(use(), std::bad_alloc);
        EXPECT_FALSE(support::isHeld(g_GvUsbMan.m_mtxDevList));
    };
    throws([&] { GVUSB_IsDevicePresent(devHnd); });
    throws([&] { GVUSB_Transceive(devHnd, "TESK-RCI2", 0, frame, sizeof frame, buffer, sizeof buffer); });
    throws([&] { GVUSB_Transmit(devHnd, "TESK-RCI2", frame, sizeof frame); });
    throws([&] { GVUSB_Receive(devHnd, "TESK-RCI2", buffer, sizeof buffer); });
    fake::setHook({});
    EXPECT_EQ(GVUSB_IsDevicePresent(devHnd), 1);
}

TEST_F(FramesTest, ManagerLogsNothing) {
    const int devHnd = openReader("dev1", "1A2B3C");
    unsigned char buffer[64] = {};
    LogAt log(1);
    GVUSB_IsDevicePresent(devHnd);
    GVUSB_IsDevicePresent(77);
    GVUSB_Transceive(devHnd, "TESK-RCI2", 0, frame, sizeof frame, buffer, sizeof buffer);
    EXPECT_THAT(log.takeLines(), IsEmpty());
}
