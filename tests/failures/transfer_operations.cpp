// Frames: the first exchange after opening, which selects the transfer mode, and later ones.
#include "expected_codes.h"
#include "operations.h"
#include "situations.h"

#include "fake_libusb.h"

#include <string>

namespace fake = fake_libusb;

namespace failures {
namespace {

std::string deviceOf(unsigned devId) {
    return "dev" + std::to_string(devId - 0xA0);
}

fake::Transfer receiving(unsigned devId) {
    return devId == controlId ? fake::Transfer::controlIn : fake::Transfer::bulkIn;
}

template <unsigned devId>
int exchange() {
    return transceive(devId);
}

template <unsigned devId>
int transmit() {
    return GVUSB_Transmit(handleOf(devId), GVUSB_PROTOCOL, frame, frameLength);
}

template <unsigned devId>
int receive() {
    unsigned char answer[16];
    return GVUSB_Receive(handleOf(devId), GVUSB_PROTOCOL, answer, sizeof answer);
}

template <unsigned devId>
Outcome exchangeOf(const Failing& failing) {
    const int code = exchangeCode(failing, devId == kernelDriverId);
    return {.result = code < 0 ? code : frameLength, .lastError = code, .reader = devId, .readerError = code};
}

template <unsigned devId>
Outcome transmitOf(const Failing& failing) {
    const int code = exchangeCode(failing, devId == kernelDriverId);
    return {.result = code, .reader = devId, .readerError = code};
}

// The last error is the number of received bytes.
template <unsigned devId>
Outcome receiveOf(const Failing& failing) {
    const int code = exchangeCode(failing, devId == kernelDriverId);
    const int result = code < 0 ? code : frameLength;
    return {.result = result, .lastError = result, .reader = devId, .readerError = code};
}

// The first exchange selects the transfer mode even if it fails, so reopen the reader.
template <unsigned devId>
void reopen() {
    GVUSB_CloseDevice(handleOf(devId));
    GVUSB_OpenDevice(devId);
}

template <unsigned devId>
void sendAnswer() {
    fake::queueAnswer(deviceOf(devId), receiving(devId),
                      {.code = 0, .data = fake::Bytes(frame, frame + frameLength)});
}

template <unsigned devId>
void openedWithAnswer() {
    opened();
    sendAnswer<devId>();
}

template <unsigned devId>
void exchangingWithAnswer() {
    exchanging();
    sendAnswer<devId>();
}

template <unsigned devId>
void reopenWithAnswer() {
    reopen<devId>();
    sendAnswer<devId>();
}

void timeOutNext() {
    fake::queueAnswer("dev1", fake::Transfer::bulkOut, {.code = LIBUSB_ERROR_TIMEOUT});
}

void exchangingUntilTimeOut() {
    exchanging();
    timeOutNext();
}

// Consume a time-out that has not occurred yet.
void renewTimeOut() {
    transmit<bulkId>();
    timeOutNext();
}

// Failures to clear the halts are ignored.
Outcome timeOutOf(const Failing& failing) {
    const int failure = exchangeCode(failing);
    const int code = failure < 0 ? failure : int{GVUSB_ERR_TIMEOUT};
    return {.result = code, .reader = bulkId, .readerError = code};
}

// Send a frame after the reader has recovered from a time-out.
int transmitTwice() {
    transmit<bulkId>();
    return transmit<bulkId>();
}

Outcome recoveryOf(const Failing& failing) {
    const int code = failing.fails("libusb_bulk_transfer", "", 2) ? exchangeCode(failing) : 0;
    return {.result = code, .reader = bulkId, .readerError = code};
}

// If the failure comes first, the time-out does not occur until the next frame.
Outcome timeOutBeforeRecoveryOf(const Failing& failing) {
    if (failing.fails("libusb_bulk_transfer", "", 1) && !failing.lasts()) {
        return {.result = GVUSB_ERR_TIMEOUT, .reader = bulkId, .readerError = GVUSB_ERR_TIMEOUT};
    }
    return recoveryOf(failing);
}

template <unsigned devId>
std::vector<Operation> exchangesWith(const char* const (&names)[6]) {
    return {
        {names[0], opened, exchange<devId>, exchangeOf<devId>, reopen<devId>},
        {names[1], exchanging, exchange<devId>, exchangeOf<devId>},
        {names[2], opened, transmit<devId>, transmitOf<devId>, reopen<devId>},
        {names[3], exchanging, transmit<devId>, transmitOf<devId>},
        {names[4], openedWithAnswer<devId>, receive<devId>, receiveOf<devId>, reopenWithAnswer<devId>},
        {names[5], exchangingWithAnswer<devId>, receive<devId>, receiveOf<devId>, sendAnswer<devId>},
    };
}

} // namespace

std::vector<Operation> transferOperations() {
    std::vector<Operation> all = {
        {"transmitTimesOut", exchangingUntilTimeOut, transmit<bulkId>, timeOutOf, renewTimeOut},
        {"transmitAfterTimeOut", exchangingUntilTimeOut, transmitTwice, timeOutBeforeRecoveryOf,
         renewTimeOut},
    };
    for (const auto& some :
         {exchangesWith<bulkId>({"firstTransceiveBulk", "transceiveBulk", "firstTransmitBulk", "transmitBulk",
                                 "firstReceiveBulk", "receiveBulk"}),
          exchangesWith<kernelDriverId>({"firstTransceiveDriver", "transceiveDriver", "firstTransmitDriver",
                                         "transmitDriver", "firstReceiveDriver", "receiveDriver"}),
          exchangesWith<controlId>({"firstTransceiveControl", "transceiveControl", "firstTransmitControl",
                                    "transmitControl", "firstReceiveControl", "receiveControl"})}) {
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

} // namespace failures
