#include "allocation_failure.h"
#include "transfer_operations.h"

#include <thread>
#include <tuple>

namespace {

using testing::Combine;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testing::ValuesIn;

class TransferTest : public DeviceTest,
                     public testing::WithParamInterface<std::tuple<TransferOperation, TransferMode>> {
protected:
    TransferTest() {
        fake::takeCalls();
        device.lastError = GVUSB_ERR_OUT_OF_RANGE;
    }

    int run(const char* name = protocol) { return operation.run(device, name); }

    // Queue the answer to a receive, if the operation receives.
    void answerWell() { answerWell(medium.in); }
    void answerWell(fake::Transfer transfer) {
        if (operation.receives) {
            fake::queueAnswer("dev1", transfer, {.data = {0x06, 0x0A}});
        }
    }

    void failTransfers(int code) {
        fake::failAlways(std::get<1>(GetParam()) == TransferMode::bulk ? "libusb_bulk_transfer"
                                                                       : "libusb_control_transfer",
                         code);
    }

    std::string failureLine(int usbResult) const {
        return std::string("[") + (operation.sends ? medium.sendTag : medium.receiveTag) + "] returned " +
               std::to_string(usbResult);
    }

    const TransferOperation operation = std::get<0>(GetParam());
    const TransferMedium medium = mediumOf(std::get<1>(GetParam()));
    const int success = operation.receives ? 2 : 0;
    ~TransferTest() noexcept override = default;

    GVDevice device{1, fake::plug("dev1", medium.reader)};
};

TEST_P(TransferTest, ClosedReaderIsRefusedBeforeTheProtocolNameIsChecked) {
    for (const char* name : {protocol, "another", ""}) {
        SCOPED_TRACE(name);
        EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(run(name), GVUSB_ERR_NOT_OPENED); }),
                    ElementsAre(std::string("[") + operation.tag + "] device not open error"));
        EXPECT_EQ(device.lastError, GVUSB_ERR_NOT_OPENED);
        EXPECT_THAT(logOf(1, [&] { run(name); }), IsEmpty());
    }
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_P(TransferTest, OtherProtocolIsRefusedWithoutALogLineOrAccessToTheReader) {
    open(device);
    const std::string names[] = {"",
                                 "TESK-RCI2 ",
                                 " TESK-RCI2",
                                 "TESK-RCI",
                                 "TESK-RCI22",
                                 "TESK_RCI2",
                                 "TESKRCI2",
                                 "TESK RCI2",
                                 "TESK-RC\xC4\xB0"
                                 "2",
                                 std::string("TESK-RCI2") + std::string(118, ' '),
                                 std::string(127, 'T'),
                                 std::string(128, 'T'),
                                 std::string(129, 'T'),
                                 std::string(100000, 'T')};
    for (const std::string& name : names) {
        SCOPED_TRACE(name.substr(0, 20) + ", length " + std::to_string(name.size()));
        device.lastError = 0;
        EXPECT_THAT(logOf(3, [&] { EXPECT_EQ(run(name.c_str()), GVUSB_ERR_UNKNOWN_INTERFACE); }), IsEmpty());
        EXPECT_EQ(device.lastError, GVUSB_ERR_UNKNOWN_INTERFACE);
    }
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    EXPECT_EQ(stateOf(device), openState);
}

TEST_P(TransferTest, ProtocolNameMayBeInAnyLetterCase) {
    open(device);
    for (const char* name : {"TESK-RCI2", "tesk-rci2", "Tesk-Rci2", "tESK-rCI2"}) {
        SCOPED_TRACE(name);
        answerWell();
        EXPECT_EQ(run(name), success);
    }
}

TEST_P(TransferTest, OnlyTheFirstTransferLooksUpTheEndpoints) {
    open(device);
    answerWell();
    EXPECT_EQ(run(), success);
    auto calls = fake::takeCalls();
    ASSERT_GE(calls.size(), 6u);
    EXPECT_EQ(calls[0], "libusb_get_device_descriptor(dev1) = 0");
    EXPECT_EQ(calls[4], "libusb_claim_interface(hnd1, 0) = 0");

    answerWell();
    EXPECT_EQ(run(), success);
    calls = fake::takeCalls();
    EXPECT_EQ(calls.size(), operation.sends && operation.receives ? 2u : 1u);
    EXPECT_THAT(calls, Not(Contains(StartsWith("libusb_get_"))));
}

TEST_P(TransferTest, ReopenedReaderIsLookedUpAgain) {
    open(device);
    answerWell();
    EXPECT_EQ(run(), success);
    EXPECT_EQ(device.CloseDevice(), GVUSB_OK);
    open(device);
    answerWell();
    EXPECT_EQ(run(), success);
    EXPECT_THAT(fake::takeCalls(), Contains("libusb_claim_interface(hnd1, 0) = 0"));
}

struct FailingLookUp {
    const char* function;
    int code;
    const char* lastLine;
};

const FailingLookUp failingLookUps[] = {
    {"libusb_get_device_descriptor", GVUSB_ERR_NO_CONFIGURATION, "no configurations"},
    {"libusb_get_config_descriptor", GVUSB_ERR_CONFIG_DESCRIPTOR_READ,
     "libusb_get_config_descriptor(0) returned -1"},
    {"libusb_claim_interface", GVUSB_ERR_CANNOT_CLAIM, "libusb_claim_interface(0) returned -1"},
};

TEST_P(TransferTest, FailedLookupEndsTheTransferWithoutAnotherLine) {
    for (const auto& [function, code, lastLine] : failingLookUps) {
        SCOPED_TRACE(function);
        open(device);
        fake::failNext(function, LIBUSB_ERROR_IO);
        const Lines lines = logOf(2, [&, expected = code] { EXPECT_EQ(run(), expected); });
        EXPECT_EQ(lines.back(), std::string("[get bulk end points] ") + lastLine);
        EXPECT_EQ(device.lastError, code);
        EXPECT_THAT(fake::takeCalls(), Not(Contains(StartsWith("libusb_bulk_transfer"))));
        EXPECT_THAT(fake::frames("dev1"), IsEmpty());
        EXPECT_EQ(device.CloseDevice(), GVUSB_OK);
    }
}

TEST_P(TransferTest, AfterAFailedClaimTheNextTransferDoesNotLookUpAgain) {
    open(device);
    fake::failNext("libusb_claim_interface", LIBUSB_ERROR_BUSY);
    EXPECT_EQ(run(), GVUSB_ERR_CANNOT_CLAIM);
    fake::takeCalls();

    answerWell();
    EXPECT_EQ(run(), success);

    EXPECT_THAT(fake::takeCalls(), testing::Each(StartsWith(std::get<1>(GetParam()) == TransferMode::bulk
                                                                ? "libusb_bulk_transfer(hnd1, "
                                                                : "libusb_control_transfer(hnd1, ")));
    EXPECT_EQ(device.lastError, GVUSB_OK);
}

TEST_P(TransferTest, AfterUnreadableDescriptorsTheNextTransferUsesControl) {
    for (const char* function : {"libusb_get_device_descriptor", "libusb_get_config_descriptor"}) {
        SCOPED_TRACE(function);
        open(device);
        fake::failNext(function, LIBUSB_ERROR_IO);
        EXPECT_LT(run(), 0);
        fake::takeCalls();
        answerWell(fake::Transfer::controlIn);
        EXPECT_EQ(run(), success);
        EXPECT_THAT(fake::takeCalls(), testing::Each(StartsWith("libusb_control_transfer(hnd1, ")));
        EXPECT_EQ(device.CloseDevice(), GVUSB_OK);
    }
}

TEST_P(TransferTest, SuccessClearsTheLastErrorAndLogsOnlyDumps) {
    makeReady(device);
    answerWell();
    const Lines lines = logOf(2, [&] { EXPECT_EQ(run(), success); });
    Lines expected;
    if (operation.sends) {
        expected.push_back(std::string("[") + medium.sendTag + "]   5 Bytes >> 02 00 07 FF 01 ");
    }
    if (operation.receives) {
        expected.push_back(std::string("[") + medium.receiveTag + " ]   2 Bytes << 06 0A ");
    }
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(device.lastError, GVUSB_OK);
}

TEST_P(TransferTest, FailureIsLoggedByBothLevelsOfTheTransfer) {
    makeReady(device);
    for (const int usbResult : libusbErrors) {
        SCOPED_TRACE(usbResult);
        device.lastError = 0;
        fake::stopFailing();
        failTransfers(usbResult);
        const int code = expectedCode(usbResult, medium.otherError);
        Lines expected;
        if (operation.sends) {
            expected.push_back(std::string("[") + medium.sendTag + "]   5 Bytes >> 02 00 07 FF 01 ");
        }
        expected.push_back(failureLine(usbResult));
        expected.push_back(std::string("[") + operation.tag + "] returned " + std::to_string(code));
        EXPECT_EQ(logOf(2, [&] { EXPECT_EQ(run(), code); }), expected);
        EXPECT_EQ(device.lastError, code);
    }
    fake::stopFailing();
    answerWell();
    EXPECT_EQ(run(), success);
}

TEST_P(TransferTest, NothingIsLoggedUpToLevelOne) {
    for (const int level : {-1, 0, 1}) {
        open(device);
        EXPECT_THAT(logOf(level,
                          [&] {
                              answerWell();
                              EXPECT_EQ(run(), success);
                              failTransfers(LIBUSB_ERROR_IO);
                              EXPECT_EQ(run(), medium.otherError);
                              fake::stopFailing();
                          }),
                    IsEmpty())
            << level;
        device.CloseDevice();
    }
}

TEST_P(TransferTest, FramesNeedNoMemoryWhileTheLogIsOff) {
    if (!support::allocationsAreWatched) {
        GTEST_SKIP() << "the sanitizer replaces operator new";
    }
    makeReady(device);
    answerWell();
    const std::size_t before = support::allocations();
    const int result = run();
    EXPECT_EQ(support::allocations() - before, 0u);
    EXPECT_EQ(result, success);
}

TEST_P(TransferTest, UnpluggedReaderIsNotPresentAndStaysOpen) {
    makeReady(device);
    const DeviceState before = stateOf(device);
    fake::unplug("dev1");
    EXPECT_EQ(run(), GVUSB_ERR_NOT_PRESENT);
    EXPECT_EQ(device.lastError, GVUSB_ERR_NOT_PRESENT);
    EXPECT_EQ(stateOf(device), before);
}

INSTANTIATE_TEST_SUITE_P(EachOperation, TransferTest,
                         Combine(ValuesIn(transferOperations),
                                 testing::Values(TransferMode::bulk, TransferMode::control)),
                         [](const auto& each) {
                             return std::string(std::get<0>(each.param).tag) +
                                    (std::get<1>(each.param) == TransferMode::bulk ? "Bulk" : "Control");
                         });

class TransceiveTest : public DeviceTest, public testing::WithParamInterface<TransferMode> {
protected:
    const TransferMedium medium = mediumOf(GetParam());
    ~TransceiveTest() noexcept override = default;

    GVDevice device{1, fake::plug("dev1", medium.reader)};
};

TEST_P(TransceiveTest, EachFrameGetsItsOwnAnswer) {
    open(device);
    for (unsigned int length = 1; length <= 64; ++length) {
        const fake::Bytes frame(length, static_cast<std::uint8_t>(length));
        fake::Bytes answer(64, 0xAA);
        EXPECT_EQ(device.Transceive(protocol, frame.data(), length, answer.data(), 64),
                  static_cast<int>(length));
        fake::Bytes expected = frame;
        expected.resize(64);
        EXPECT_EQ(answer, expected);
    }
}

TEST_P(TransceiveTest, FailedSendIsNotFollowedByAReceive) {
    makeReady(device);
    for (const int usbResult : libusbErrors) {
        SCOPED_TRACE(usbResult);
        fake::queueAnswer("dev1", medium.out, {.code = usbResult});
        fake::takeCalls();
        fake::Bytes answer(8, 0xAA);
        EXPECT_EQ(device.Transceive(protocol, sentFrame.data(), 5, answer.data(), 8),
                  expectedCode(usbResult, medium.otherError));
        EXPECT_EQ(answer, fake::Bytes(8, 0xAA));
        const auto calls = fake::takeCalls();
        const bool clears = GetParam() == TransferMode::bulk && usbResult == LIBUSB_ERROR_TIMEOUT;
        EXPECT_EQ(calls.size(), clears ? 3u : 1u);
    }
}

TEST_P(TransceiveTest, FailedReceiveIsTheResult) {
    makeReady(device);
    for (const int usbResult : libusbErrors) {
        SCOPED_TRACE(usbResult);
        fake::queueAnswer("dev1", medium.in, {.code = usbResult});
        fake::takeCalls();
        fake::Bytes answer(8, 0xAA);
        const int code = expectedCode(usbResult, medium.otherError);
        EXPECT_EQ(device.Transceive(protocol, sentFrame.data(), 5, answer.data(), 8), code);
        EXPECT_EQ(device.lastError, code);
        EXPECT_EQ(fake::takeCalls().size(), 2u);
    }
    fake::reset();
}

TEST_P(TransceiveTest, ThreadsDoNotInterleaveAFrameAndItsAnswer) {
    open(device);
    const auto exchange = [this](std::uint8_t id) {
        for (int i = 0; i < 50; ++i) {
            const fake::Bytes frame(4, id);
            fake::Bytes answer(4);
            EXPECT_EQ(device.Transceive(protocol, frame.data(), 4, answer.data(), 4), 4);
            EXPECT_EQ(answer, frame);
        }
    };
    std::thread first(exchange, std::uint8_t{1});
    std::thread second(exchange, std::uint8_t{2});
    first.join();
    second.join();
}

INSTANTIATE_TEST_SUITE_P(EachMode, TransceiveTest, testing::Values(TransferMode::bulk, TransferMode::control),
                         [](const auto& each) {
                             return each.param == TransferMode::bulk ? "Bulk" : "Control";
                         });

} // namespace
