#include "transfer_operations.h"

#include <algorithm>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ControlTransferTest : public DeviceTest {
protected:
    ControlTransferTest() { makeReady(device); }

    int send(const fake::Bytes& frame) {
        return device.Transmit(protocol, frame.data(), static_cast<unsigned int>(frame.size()));
    }

    int receive(fake::Bytes& buffer) {
        return device.Receive(protocol, buffer.data(), static_cast<unsigned int>(buffer.size()));
    }

    ~ControlTransferTest() noexcept override = default;

    GVDevice device{1, fake::plug("dev1", fake::controlReader())};
};

TEST_F(ControlTransferTest, SendsAVendorRequestToTheDevice) {
    EXPECT_EQ(send(sentFrame), GVUSB_OK);
    EXPECT_EQ(fake::takeCallText(), "libusb_control_transfer(hnd1, 0x40, 0, 0, 0, 5, 1000) = 5\n");
    EXPECT_THAT(fake::frames("dev1"), ElementsAre(sentFrame));
}

TEST_F(ControlTransferTest, ReceivesByAVendorRequestToTheDevice) {
    fake::queueAnswer("dev1", fake::Transfer::controlIn, {.data = {1, 2, 3}});
    EXPECT_EQ(device.SetDevicePara("TIMEOUT", "250"), GVUSB_OK);
    fake::Bytes buffer(16);
    EXPECT_EQ(receive(buffer), 3);
    EXPECT_EQ(fake::takeCallText(), "libusb_control_transfer(hnd1, 0xc0, 0, 0, 0, 16, 250) = 3\n");
}

TEST_F(ControlTransferTest, ReaderWithOnlyOneBulkEndpointUsesControlTransfers) {
    for (const std::uint8_t address : {std::uint8_t{0x81}, std::uint8_t{0x02}}) {
        fake::FakeReader reader;
        reader.configurations[0].interfaces[0].altSettings = {{fake::FakeEndpoint{address}}};
        fake::reset();
        GVDevice half(2, fake::plug("dev2", reader));
        makeReady(half);
        EXPECT_EQ(half.Transmit(protocol, sentFrame.data(), 5), GVUSB_OK);
        EXPECT_EQ(fake::takeCallText(), "libusb_control_transfer(hnd2, 0x40, 0, 0, 0, 5, 1000) = 5\n");
    }
}

TEST_F(ControlTransferTest, FramesUpTo4096BytesArrive) {
    for (const std::size_t length : {1u, 8u, 64u, 65u, 4095u, 4096u}) {
        SCOPED_TRACE(length);
        fake::Bytes frame(length);
        std::generate(frame.begin(), frame.end(),
                      [i = 0]() mutable { return static_cast<std::uint8_t>(i++ % 251); });
        EXPECT_EQ(send(frame), GVUSB_OK);
        fake::Bytes buffer(length);
        EXPECT_EQ(receive(buffer), static_cast<int>(length));
        EXPECT_EQ(buffer, frame);
    }
}

TEST_F(ControlTransferTest, ShortWriteCountsAsSuccess) {
    for (const int count : {0, 1, 4}) {
        fake::queueAnswer("dev1", fake::Transfer::controlOut, {.count = count});
        device.lastError = GVUSB_ERR_TIMEOUT;
        EXPECT_EQ(send(sentFrame), GVUSB_OK);
        EXPECT_EQ(device.lastError, GVUSB_OK);
    }
}

TEST_F(ControlTransferTest, LongestSendIsPassedToLibusb) {
    const fake::Bytes frame(65535, 0x11);
    EXPECT_EQ(send(frame), GVUSB_ERR_CONTROL_TRANSFER);
    EXPECT_EQ(fake::takeCallText(), "libusb_control_transfer(hnd1, 0x40, 0, 0, 0, 65535, 1000) = -2\n");
}

TEST_F(ControlTransferTest, LongerSendIsRefusedAfterItsDump) {
    for (const unsigned int length : {65536u, 65537u, 0x80000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(length);
        const fake::Bytes start(1400, 0x55); // the dump reads no more of it
        int result = 0;
        const Lines lines = logOf(2, [&] { result = device.Transmit(protocol, start.data(), length); });
        EXPECT_EQ(result, GVUSB_ERR_SEND_LENGTH);
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_THAT(lines.front(),
                    testing::StartsWith("[ctrlTransmit] " + std::to_string(length) + " Bytes >> 55 55 "));
        EXPECT_EQ(lines.back(), "[transmit] returned -1135");
        EXPECT_EQ(device.lastError, GVUSB_ERR_SEND_LENGTH);
    }
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_F(ControlTransferTest, RefusedSendIsNotFollowedByAReceive) {
    const fake::Bytes frame(65536, 0x55);
    fake::Bytes buffer(4, 0xAA);
    EXPECT_EQ(device.Transceive(protocol, frame.data(), 65536, buffer.data(), 4), GVUSB_ERR_SEND_LENGTH);
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    EXPECT_EQ(buffer, fake::Bytes(4, 0xAA));
}

TEST_F(ControlTransferTest, FailedSendIsMappedAndLoggedWithoutClearingAnything) {
    for (const int usbResult : libusbErrors) {
        SCOPED_TRACE(usbResult);
        fake::queueAnswer("dev1", fake::Transfer::controlOut, {.code = usbResult});
        const int code = expectedCode(usbResult, -1180);
        EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(send(sentFrame), code); }),
                    ElementsAre("[ctrlTransmit]   5 Bytes >> 02 00 07 FF 01 ",
                                "[ctrlTransmit] returned " + std::to_string(usbResult),
                                "[transmit] returned " + std::to_string(code)));
        EXPECT_EQ(device.lastError, code);
        EXPECT_THAT(fake::takeCalls(),
                    ElementsAre("libusb_control_transfer(hnd1, 0x40, 0, 0, 0, 5, 1000) = " +
                                std::to_string(usbResult)));
    }
}

TEST_F(ControlTransferTest, FailedReceiveIsMappedAndLoggedWithoutClearingAnything) {
    for (const int usbResult : libusbErrors) {
        SCOPED_TRACE(usbResult);
        fake::queueAnswer("dev1", fake::Transfer::controlIn, {.code = usbResult});
        const int code = expectedCode(usbResult, -1180);
        fake::Bytes buffer(4);
        EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(receive(buffer), code); }),
                    ElementsAre("[ctrlReceive] returned " + std::to_string(usbResult),
                                "[receive] returned " + std::to_string(code)));
        EXPECT_EQ(device.lastError, code);
        EXPECT_THAT(fake::takeCalls(),
                    ElementsAre("libusb_control_transfer(hnd1, 0xc0, 0, 0, 0, 4, 1000) = " +
                                std::to_string(usbResult)));
    }
}

TEST_F(ControlTransferTest, ReceiveRequestsAndZeroesAtMost4096Bytes) {
    for (const unsigned int size : {1u, 4095u, 4096u, 4097u, 10000u, 65536u, 65537u}) {
        SCOPED_TRACE(size);
        const unsigned int asked = std::min(size, 4096u);
        fake::Bytes buffer(size, 0xAA);
        EXPECT_EQ(receive(buffer), GVUSB_ERR_TIMEOUT);
        EXPECT_EQ(fake::takeCallText(),
                  "libusb_control_transfer(hnd1, 0xc0, 0, 0, 0, " + std::to_string(asked) + ", 1000) = -7\n");
        fake::Bytes expected(size, 0xAA);
        std::fill_n(expected.begin(), asked, std::uint8_t{0});
        EXPECT_EQ(buffer, expected);
    }
}

TEST_F(ControlTransferTest, BufferIsZeroedBeforeTheTransfer) {
    fake::Bytes buffer(5, 0xAA);
    fake::Bytes duringTransfer;
    fake::setHandler([&](const fake::Request&) {
        duringTransfer = buffer;
        return fake::Answer{.data = {1, 2}};
    });
    EXPECT_EQ(receive(buffer), 2);
    fake::setHandler(nullptr);
    EXPECT_EQ(duringTransfer, fake::Bytes(5, 0));
    EXPECT_THAT(buffer, ElementsAre(1, 2, 0, 0, 0));
}

TEST_F(ControlTransferTest, ReceivedBytesAreDumpedNotTheWholeBuffer) {
    fake::queueAnswer("dev1", fake::Transfer::controlIn, {.data = {0x0A, 0xFF}});
    fake::Bytes buffer(100);
    EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(receive(buffer), 2); }),
                ElementsAre("[ctrlReceive ]   2 Bytes << 0A FF "));
}

TEST_F(ControlTransferTest, EmptyReceptionIsDumpedWithABlankCount) {
    fake::queueAnswer("dev1", fake::Transfer::controlIn, {});
    fake::Bytes buffer(100);
    EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(receive(buffer), 0); }),
                ElementsAre("[ctrlReceive ]     Bytes << "));
    EXPECT_EQ(device.lastError, GVUSB_OK);
}

TEST_F(ControlTransferTest, MembersUnderTheLockDoNotSetTheLastError) {
    device.lastError = GVUSB_ERR_OUT_OF_RANGE;
    const MutexLock lock(device.mutex);
    unsigned char buffer[4];
    EXPECT_EQ(device.Transmit_Ctrl(sentFrame.data(), 5), GVUSB_OK);
    EXPECT_EQ(device.Receive_Ctrl(buffer, 4), 4);
    EXPECT_EQ(device.Receive_Ctrl(buffer, 4), GVUSB_ERR_TIMEOUT);
    EXPECT_EQ(device.Transceive_Ctrl(sentFrame.data(), 3, buffer, 4), 3);
    EXPECT_EQ(device.lastError, GVUSB_ERR_OUT_OF_RANGE);
}

} // namespace
