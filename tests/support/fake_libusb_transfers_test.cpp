#include "fake_libusb_test.h"

#include <chrono>

namespace fake = fake_libusb;

namespace {

class FakeTransfersTest : public FakeLibusbTest {
protected:
    FakeTransfersTest()
        : handle(open(fake::plug("dev1", fake::bulkReader()))) {}
    ~FakeTransfersTest() override { libusb_close(handle); }

    int send(fake::Bytes data, int* transferred = nullptr) {
        return libusb_bulk_transfer(handle, 0x02, data.data(), static_cast<int>(data.size()), transferred,
                                    1000);
    }

    struct Received {
        int code = 0;
        int transferred = -1;
        fake::Bytes data = {};
        bool operator==(const Received&) const = default;
    };

    Received receive(int size) {
        Received result;
        result.data.resize(static_cast<std::size_t>(size), 0xEE);
        result.code = libusb_bulk_transfer(handle, 0x81, result.data.data(), size, &result.transferred, 1000);
        return result;
    }

    libusb_device_handle* handle;
};

} // namespace

TEST_F(FakeTransfersTest, BulkEchoesFrameByFrame) {
    int transferred = 0;
    EXPECT_EQ(send({1, 2, 3}, &transferred), 0);
    EXPECT_EQ(transferred, 3);
    EXPECT_EQ(send({4}), 0);
    EXPECT_EQ(receive(4), (Received{0, 3, {1, 2, 3, 0xEE}}));
    EXPECT_EQ(receive(4), (Received{0, 1, {4, 0xEE, 0xEE, 0xEE}}));
    EXPECT_EQ(receive(1), (Received{LIBUSB_ERROR_TIMEOUT, 0, {0xEE}}));
    EXPECT_EQ(fake::frames("dev1"), (std::vector<fake::Bytes>{{1, 2, 3}, {4}}));
}

TEST_F(FakeTransfersTest, ShortBulkInLeavesTheRestAndShortControlInDropsIt) {
    EXPECT_EQ(send({1, 2, 3}), 0);
    EXPECT_EQ(receive(2), (Received{0, 2, {1, 2}}));
    EXPECT_EQ(receive(2), (Received{0, 1, {3, 0xEE}}));
    unsigned char data[3] = {7, 8, 9};
    EXPECT_EQ(libusb_control_transfer(handle, 0x40, 0, 0, 0, data, 3, 1000), 3);
    EXPECT_EQ(libusb_control_transfer(handle, 0xC0, 0, 0, 0, data, 2, 1000), 2);
    EXPECT_EQ(libusb_control_transfer(handle, 0xC0, 0, 0, 0, data, 2, 1000), LIBUSB_ERROR_TIMEOUT);
}

TEST_F(FakeTransfersTest, MissingEndpointsAndUnknownRequestsFail) {
    unsigned char data[5000] = {};
    int transferred = 0;
    EXPECT_EQ(libusb_bulk_transfer(handle, 0x03, data, 1, &transferred, 1), LIBUSB_ERROR_IO);
    EXPECT_EQ(libusb_control_transfer(handle, 0x40, 9, 0, 0, data, 1, 1), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(libusb_control_transfer(handle, 0x40, 0, 0, 0, data, 4097, 1), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(libusb_control_transfer(handle, 0x40, 0, 0, 0, data, 4096, 1), 4096);
    EXPECT_EQ(libusb_bulk_transfer(handle, 0x02, data, -1, &transferred, 1), LIBUSB_ERROR_INVALID_PARAM);
}

TEST_F(FakeTransfersTest, QueuedAnswersComeFirstAndOnce) {
    fake::queueAnswer("dev1", fake::Transfer::bulkOut, {.count = 1});
    fake::queueAnswer("dev1", fake::Transfer::bulkIn, {.code = LIBUSB_ERROR_TIMEOUT, .data = {5, 6}});
    fake::queueAnswer("dev1", fake::Transfer::bulkIn, {.data = {1, 2, 3, 4}});
    fake::queueAnswer("dev1", fake::Transfer::controlIn, {.code = LIBUSB_ERROR_NO_DEVICE});
    int transferred = 0;
    EXPECT_EQ(send({1, 2}, &transferred), 0);
    EXPECT_EQ(transferred, 1);
    EXPECT_EQ(receive(3), (Received{LIBUSB_ERROR_TIMEOUT, 2, {5, 6, 0xEE}}));
    EXPECT_EQ(receive(2), (Received{0, 2, {1, 2}}));
    unsigned char data[1] = {};
    EXPECT_EQ(libusb_control_transfer(handle, 0xC0, 0, 0, 0, data, 1, 1), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(receive(1).code, LIBUSB_ERROR_TIMEOUT) << "the answered frame must not be echoed";
    EXPECT_EQ(fake::frames("dev1"), (std::vector<fake::Bytes>{{1, 2}}));
}

TEST_F(FakeTransfersTest, HandlerSeesTheWholeRequestAndMayDeferToTheEcho) {
    std::vector<std::string> seen;
    fake::setHandler([&](const fake::Request& request) -> std::optional<fake::Answer> {
        seen.push_back(request.device + " " + std::to_string(request.endpoint) + " " +
                       std::to_string(request.request) + " " + std::to_string(request.value) + " " +
                       std::to_string(request.index) + " " + std::to_string(request.sent.size()) + " " +
                       std::to_string(request.length) + " " + std::to_string(request.timeout));
        if (request.transfer == fake::Transfer::controlIn) {
            return fake::Answer{.data = {42}};
        }
        return std::nullopt;
    });
    EXPECT_EQ(send({1, 2}), 0);
    EXPECT_EQ(receive(2), (Received{0, 2, {1, 2}}));
    unsigned char data[1] = {};
    EXPECT_EQ(libusb_control_transfer(handle, 0xC0, 7, 8, 9, data, 1, 50), 1);
    EXPECT_EQ(data[0], 42);
    EXPECT_EQ(seen, (std::vector<std::string>{"dev1 2 0 0 0 2 2 1000", "dev1 129 0 0 0 0 2 1000",
                                              "dev1 192 7 8 9 0 1 50"}));
}

TEST_F(FakeTransfersTest, HandlerMayUnplugItsDevice) {
    fake::setHandler([](const fake::Request&) {
        fake::unplug("dev1");
        return fake::Answer{.code = LIBUSB_ERROR_NO_DEVICE};
    });
    EXPECT_EQ(send({1}), LIBUSB_ERROR_NO_DEVICE);
    fake::setHandler(nullptr);
    EXPECT_EQ(send({1}), LIBUSB_ERROR_NO_DEVICE);
}

TEST_F(FakeTransfersTest, ResetDropsQueuedFrames) {
    EXPECT_EQ(send({1}), 0);
    EXPECT_EQ(libusb_reset_device(handle), 0);
    EXPECT_EQ(receive(1).code, LIBUSB_ERROR_TIMEOUT);
}

TEST_F(FakeTransfersTest, KeepsNothingIfRecordingIsOff) {
    fake::recordNothing();
    fake::takeCalls();
    unsigned char data[16] = {};
    int transferred = 0;
    constexpr int rounds = 100'000;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < rounds; ++i) {
        ASSERT_EQ(libusb_bulk_transfer(handle, 0x02, data, 16, &transferred, 1), 0);
        ASSERT_EQ(libusb_bulk_transfer(handle, 0x81, data, 16, &transferred, 1), 0);
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    RecordProperty("transfersPerSecond", std::to_string(2 * rounds / elapsed.count()));
    EXPECT_TRUE(fake::takeCalls().empty());
    EXPECT_TRUE(fake::frames("dev1").empty());
}
