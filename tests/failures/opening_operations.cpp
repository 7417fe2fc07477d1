// Opening, closing and checking the presence of a reader.
#include "expected_codes.h"
#include "operations.h"
#include "situations.h"

namespace failures {
namespace {

template <unsigned devId>
int open() {
    return GVUSB_OpenDevice(devId);
}

template <unsigned devId>
Outcome openOf(const Failing& failing) {
    const int code = openingCode(failing, "");
    return {.result = code, .handleOf = code == 0 ? devId : 0};
}

template <unsigned devId>
void closeIfOpen() {
    if (const int devHnd = handleOf(devId); devHnd > 0) {
        GVUSB_CloseDevice(devHnd);
    }
}

int close() {
    return GVUSB_CloseDevice(handleOf(bulkId));
}

// The library closes the handle even if releasing the interface fails.
Outcome alwaysCloses(const Failing& /*failing*/) {
    return {};
}

void exchangeAgain() {
    GVUSB_Scan(GVUSB_SCAN_ALL, nullptr);
    GVUSB_OpenDevice(bulkId);
    transceive(bulkId);
}

void exchangingUnscanned() {
    exchanging();
    GVUSB_ClearScanList();
}

void exchangeAgainUnscanned() {
    exchangeAgain();
    GVUSB_ClearScanList();
}

int isPresent() {
    return GVUSB_IsDevicePresent(handleOf(bulkId));
}

Outcome presenceOf(const Failing& failing) {
    const bool present = !failing.fails("libusb_get_string_descriptor_ascii");
    return {.result = present ? 1 : 0,
            .lastError = 0,
            .reader = bulkId,
            .readerError = present ? 0 : int{GVUSB_ERR_NOT_PRESENT}};
}

// In any state, clearing the list keeps open readers open and destroys the other records.
int clearScanList() {
    return GVUSB_ClearScanList();
}

Outcome clearedOf(const Failing& /*failing*/) {
    return {.scanned = std::vector<unsigned>()};
}

} // namespace

std::vector<Operation> openingOperations() {
    return {
        {"openBulk", scanned, open<bulkId>, openOf<bulkId>, closeIfOpen<bulkId>},
        {"openToBeConfigured", scanned, open<controlId>, openOf<controlId>, closeIfOpen<controlId>},
        {.name = "openOpen",
         .prepare = opened,
         .run = open<bulkId>,
         .outcome = [](const Failing&) { return Outcome{.handleOf = bulkId, .lastError = earlierError}; },
         .callsLibusb = false},
        {"closeUnused", opened, close, alwaysCloses, exchangeAgain},
        {"closeUsed", exchanging, close, alwaysCloses, exchangeAgain},
        {"closeUnscanned", exchangingUnscanned, close, alwaysCloses, exchangeAgainUnscanned},
        {"isPresent", opened, isPresent, presenceOf},
        {.name = "clearScanListOfOpen",
         .prepare = exchanging,
         .run = clearScanList,
         .outcome = clearedOf,
         .callsLibusb = false},
        {.name = "clearScanListOfClosed",
         .prepare = scanned,
         .run = clearScanList,
         .outcome = clearedOf,
         .callsLibusb = false},
    };
}

} // namespace failures
