#include "transfer_operations.h"

#include <algorithm>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* lowerCaseProtocol = "tesk-rci2";

class BulkTransferTest : public DeviceTest {
protected:
    BulkTransferTest() { makeReady(device); }

    int send(const fake::Bytes& frame) {
        return device.Transmit(lowerCaseProtocol, frame.data(), static_cast<unsigned int>(frame.size()));
    }

    int receive(fake::Bytes& buffer) {
        return device.Receive(lowerCaseProtocol, buffer.data(), static_cast<unsigned int>(buffer.size()));
    }

    ~BulkTransferTest() noexcept override = default;

    GVDevice device{1, fake::plug("dev1", fake::bulkReader())};
};

TEST_F(BulkTransferTest, SendsTheFrameToTheOutEndpointWithTheTimeout) {
    EXPECT_EQ(send(sentFrame), GVUSB_OK);
    EXPECT_EQ(fake::takeCallText(), "libusb_bulk_transfer(hnd1, 0x02, 5, 1000) = 0\n");
    EXPECT_THAT(fake::frames("dev1"), ElementsAre(sentFrame));

    EXPECT_EQ(device.SetDevicePara("TIMEOUT", "4294967295"), GVUSB_OK);
    EXPECT_EQ(send({1}), GVUSB_OK);
    EXPECT_EQ(fake::takeCallText(), "libusb_bulk_transfer(hnd1, 0x02, 1, 4294967295) = 0\n");
}

TEST_F(BulkTransferTest, ReceivesFromTheInEndpointWithTheTimeout) {
    fake::queueAnswer("dev1", fake::Transfer::bulkIn, {.data = {1, 2, 3}});
    EXPECT_EQ(device.SetDevicePara("TIMEOUT", "250"), GVUSB_OK);
    fake::Bytes buffer(16);
    EXPECT_EQ(receive(buffer), 3);
    EXPECT_EQ(fake::takeCallText(), "libusb_bulk_transfer(hnd1, 0x81, 16, 250) = 0\n");
}

TEST_F(BulkTransferTest, FramesOfVariousLengthsArrive) {
    for (const std::size_t length : {1u, 63u, 64u, 65u, 512u, 4096u, 4097u, 65536u}) {
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

TEST_F(BulkTransferTest, ShortWriteCountsAsSuccess) {
    for (const int count : {0, 1, 4}) {
        fake::queueAnswer("dev1", fake::Transfer::bulkOut, {.count = count});
        device.lastError = GVUSB_ERR_TIMEOUT;
        EXPECT_EQ(send(sentFrame), GVUSB_OK);
        EXPECT_EQ(device.lastError, GVUSB_OK);
    }
}

TEST_F(BulkTransferTest, PositiveResultOfLibusbIsNoFailure) {
    fake::queueAnswer("dev1", fake::Transfer::bulkOut, {.code = 1});
    EXPECT_EQ(send(sentFrame), GVUSB_OK);
    fake::queueAnswer("dev1", fake::Transfer::bulkIn, {.code = 1, .data = {7, 8}});
    fake::Bytes buffer(4);
    EXPECT_EQ(receive(buffer), 2);
}

TEST_F(BulkTransferTest, FailedSendIsMappedAndLogged) {
    for (const int usbResult : libusbErrors) {
        SCOPED_TRACE(usbResult);
        fake::queueAnswer("dev1", fake::Transfer::bulkOut, {.code = usbResult});
        const int code = expectedCode(usbResult, -1139);
        EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(send(sentFrame), code); }),
                    ElementsAre("[bulkTransmit]   5 Bytes >> 02 00 07 FF 01 ",
                                "[bulkTransmit] returned " + std::to_string(usbResult),
                                "[transmit] returned " + std::to_string(code)));
        EXPECT_EQ(device.lastError, code);
    }
}

TEST_F(BulkTransferTest, OnlyATimeoutOfASendClearsBothEndpoints) {
    for (const int usbResult : libusbErrors) {
        SCOPED_TRACE(usbResult);
        fake::queueAnswer("dev1", fake::Transfer::bulkOut, {.code = usbResult});
        EXPECT_LT(send(sentFrame), 0);
        const std::string failed = "libusb_bulk_transfer(hnd1, 0x02, 5, 1000) = " + std::to_string(usbResult);
        if (usbResult == LIBUSB_ERROR_TIMEOUT) {
            EXPECT_THAT(fake::takeCalls(), ElementsAre(failed, "libusb_clear_halt(hnd1, 0x02) = 0",
                                                       "libusb_clear_halt(hnd1, 0x81) = 0"));
        } else {
            EXPECT_THAT(fake::takeCalls(), ElementsAre(failed));
        }
    }
}

TEST_F(BulkTransferTest, TimeoutOfASendStaysATimeoutWhenClearingFails) {
    fake::queueAnswer("dev1", fake::Transfer::bulkOut, {.code = LIBUSB_ERROR_TIMEOUT});
    fake::failAlways("libusb_clear_halt", LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(send(sentFrame), GVUSB_ERR_TIMEOUT);
    EXPECT_EQ(device.lastError, GVUSB_ERR_TIMEOUT);
    EXPECT_EQ(stateOf(device), bulkState);
}

TEST_F(BulkTransferTest, FailedSendIsLoggedBeforeTheEndpointsAreCleared) {
    fake::queueAnswer("dev1", fake::Transfer::bulkOut, {.code = LIBUSB_ERROR_TIMEOUT});
    support::CapturedStdout output;
    Lines beforeTransfer;
    Lines beforeClearing;
    const ScopedHook hook([&](std::string_view function, std::string_view) {
        const Lines lines = output.takeLogLines();
        Lines& before = function == "libusb_bulk_transfer" ? beforeTransfer : beforeClearing;
        before.insert(before.end(), lines.begin(), lines.end());
    });
    GVLOG_SetLevel(2);
    EXPECT_EQ(device.Transmit(lowerCaseProtocol, sentFrame.data(), 2), GVUSB_ERR_TIMEOUT);
    EXPECT_THAT(beforeTransfer, ElementsAre("[bulkTransmit]   2 Bytes >> 02 00 "));
    EXPECT_THAT(beforeClearing, ElementsAre("[bulkTransmit] returned -7"));
    EXPECT_THAT(output.takeLogLines(), ElementsAre("[transmit] returned -1130"));
}

TEST_F(BulkTransferTest, FailedReceiveIsMappedAndLogged) {
    for (const int usbResult : libusbErrors) {
        SCOPED_TRACE(usbResult);
        fake::queueAnswer("dev1", fake::Transfer::bulkIn, {.code = usbResult, .data = {1, 2}});
        const int code = expectedCode(usbResult, -1139);
        fake::Bytes buffer(4);
        EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(receive(buffer), code); }),
                    ElementsAre("[bulkReceive] returned " + std::to_string(usbResult),
                                "[receive] returned " + std::to_string(code)));
        EXPECT_EQ(device.lastError, code);
    }
}

TEST_F(BulkTransferTest, ReceiveTimeoutKeepsEndpointsAsTheyAre) {
    fake::Bytes buffer(4);
    EXPECT_EQ(receive(buffer), GVUSB_ERR_TIMEOUT);
    EXPECT_EQ(fake::takeCallText(), "libusb_bulk_transfer(hnd1, 0x81, 4, 1000) = -7\n");
    EXPECT_EQ(stateOf(device), bulkState);
}

TEST_F(BulkTransferTest, ReceiveFillsTheWholeBufferWithZeroFirst) {
    for (const int usbResult : {0, -1, -4, -7}) {
        SCOPED_TRACE(usbResult);
        fake::Bytes buffer(10002, 0xAA);
        fake::Bytes duringTransfer;
        fake::setHandler([&](const fake::Request&) {
            duringTransfer = buffer;
            return fake::Answer{.code = usbResult};
        });
        EXPECT_EQ(device.Receive(lowerCaseProtocol, buffer.data() + 1, 10000),
                  expectedCode(usbResult, usbResult < 0 ? -1139 : 0));
        fake::setHandler(nullptr);

        fake::Bytes expected(10002, 0);
        expected.front() = expected.back() = 0xAA;
        EXPECT_EQ(duringTransfer, expected);
        EXPECT_EQ(buffer, expected);
    }
}

TEST_F(BulkTransferTest, BytesAfterTheReceivedOnesAreZero) {
    fake::queueAnswer("dev1", fake::Transfer::bulkIn, {.data = {1, 2}});
    fake::Bytes buffer(5, 0xAA);
    EXPECT_EQ(receive(buffer), 2);
    EXPECT_THAT(buffer, ElementsAre(1, 2, 0, 0, 0));
}

TEST_F(BulkTransferTest, ReceivedBytesAreDumpedNotTheWholeBuffer) {
    fake::queueAnswer("dev1", fake::Transfer::bulkIn, {.data = {0x0A, 0xFF}});
    fake::Bytes buffer(100);
    EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(receive(buffer), 2); }),
                ElementsAre("[bulkReceive ]   2 Bytes << 0A FF "));
}

TEST_F(BulkTransferTest, EmptyReceptionIsDumpedWithABlankCount) {
    fake::queueAnswer("dev1", fake::Transfer::bulkIn, {});
    fake::Bytes buffer(100);
    EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(receive(buffer), 0); }),
                ElementsAre("[bulkReceive ]     Bytes << "));
    EXPECT_EQ(device.lastError, GVUSB_OK);
}

TEST_F(BulkTransferTest, LongestLengthThatLibusbAcceptsIsPassedOn) {
    fake::failNext("libusb_bulk_transfer", LIBUSB_ERROR_NO_MEM); // which does not read the frame
    EXPECT_EQ(device.Transmit(lowerCaseProtocol, sentFrame.data(), 0x7FFFFFFF), GVUSB_ERR_BULK_TRANSFER);
    EXPECT_THAT(fake::takeCalls(), ElementsAre("libusb_bulk_transfer(hnd1, 0x02, 2147483647, 1000) = -11"));
}

TEST_F(BulkTransferTest, LengthBeyondLibusbsLimitIsATransferErrorAfterTheDump) {
    const fake::Bytes start(1400, 0x55); // the dump reads no more of it
    for (const unsigned int length : {0x80000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(length);
        int result = 0;
        const Lines lines =
            logOf(2, [&] { result = device.Transmit(lowerCaseProtocol, start.data(), length); });
        EXPECT_EQ(result, GVUSB_ERR_BULK_TRANSFER);
        EXPECT_THAT(lines, ElementsAre(testing::StartsWith("[bulkTransmit] " + std::to_string(length) +
                                                           " Bytes >> 55 55 "),
                                       "[bulkTransmit] returned -2", "[transmit] returned -1139"));
        EXPECT_EQ(device.lastError, GVUSB_ERR_BULK_TRANSFER);
    }
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    EXPECT_THAT(fake::frames("dev1"), IsEmpty());
}

TEST_F(BulkTransferTest, MembersUnderTheLockDoNotSetTheLastError) {
    device.lastError = GVUSB_ERR_OUT_OF_RANGE;
    const MutexLock lock(device.mutex);
    unsigned char buffer[4];
    EXPECT_EQ(device.Transmit_Bulk(sentFrame.data(), 5), GVUSB_OK);
    EXPECT_EQ(device.Receive_Bulk(buffer, 4), 4);
    EXPECT_EQ(device.Receive_Bulk(buffer, 4), 1);
    EXPECT_EQ(device.Receive_Bulk(buffer, 4), GVUSB_ERR_TIMEOUT);
    EXPECT_EQ(device.Transceive_Bulk(sentFrame.data(), 3, buffer, 4), 3);
    EXPECT_EQ(device.lastError, GVUSB_ERR_OUT_OF_RANGE);
}

} // namespace
