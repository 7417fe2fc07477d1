// Scans, with and without opening. A reader that cannot be read is left out; the others are found.
#include "expected_codes.h"
#include "operations.h"
#include "situations.h"

#include "manager_lists.h"

#include <algorithm>

namespace failures {
namespace {

struct Reader {
    const char* device;
    unsigned devId;
    bool known; // already open, so the scan reads only its descriptor
};

const std::vector<Reader> freshReaders = {
    {"dev1", bulkId, false}, {"dev2", kernelDriverId, false}, {"dev3", controlId, false}};
const std::vector<Reader> openReaders = {
    {"dev1", bulkId, true}, {"dev2", kernelDriverId, true}, {"dev3", controlId, true}};
const std::vector<Reader> firstComesLast = {
    {"dev2", kernelDriverId, false}, {"dev3", controlId, false}, {"dev4", bulkId, false}};
const std::vector<Reader> firstComesLastOthersOpen = {
    {"dev2", kernelDriverId, true}, {"dev3", controlId, true}, {"dev4", bulkId, false}};

std::vector<Reader> found(const Failing& failing, std::vector<Reader> readers) {
    std::erase_if(readers, [&](const Reader& reader) {
        return reader.known ? isMissed(failing, reader.device) : staysUnidentified(failing, reader.device);
    });
    return readers;
}

Outcome scanOutcome(const std::vector<Reader>& readers) {
    std::vector<unsigned> devIds;
    for (const Reader& reader : readers) {
        devIds.push_back(reader.devId);
    }
    return {.result = readers.empty() ? int{GVUSB_ERR_NO_DEVICE_FOUND} : 0, .scanned = devIds};
}

template <const std::vector<Reader>& readers>
Outcome scanOf(const Failing& failing) {
    return scanOutcome(found(failing, readers));
}

GVUSB_SCANSEARCH search = {.mask = GVUSB_SEARCH_DEVICE_ID, .famName = "", .devName = "", .devId = "A2"};

Outcome searchOf(const Failing& failing) {
    std::vector<Reader> readers = found(failing, freshReaders);
    std::erase_if(readers, [](const Reader& reader) { return reader.devId != kernelDriverId; });
    return scanOutcome(readers);
}

// The scan has already opened the reader once, to read its strings.
int openingAfterScan(const Failing& failing, const Reader& reader) {
    return reader.known ? 0 : openingCode(failing, reader.device, 2);
}

Outcome scanAndOpenAllOf(const Failing& failing) {
    const std::vector<Reader> readers = found(failing, freshReaders);
    Outcome outcome = scanOutcome(readers);
    for (const Reader& reader : readers) {
        const int code = openingAfterScan(failing, reader);
        outcome.result = code != 0 ? code : outcome.result;
    }
    return outcome;
}

Outcome scanAndOpenFirstOf(const Failing& failing) {
    const std::vector<Reader> readers = found(failing, freshReaders);
    Outcome outcome = scanOutcome(readers);
    if (!readers.empty()) {
        outcome.result = openingAfterScan(failing, readers.front());
        outcome.handleOf = outcome.result == 0 ? readers.front().devId : 0;
    }
    return outcome;
}

// Step to dev2, which an earlier scan identified.
Outcome openNextOf(const Failing& failing) {
    const int code = openingCode(failing, "dev2");
    return {.result = code, .handleOf = code == 0 ? kernelDriverId : 0};
}

void toFirstEntry() {
    plugged();
    GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr);
}

void closeAll() {
    for (const int devHnd : manager_lists::openHandlesInOrder()) {
        GVUSB_CloseDevice(devHnd);
    }
}

void backToFirstEntry() {
    closeAll();
    GVUSB_Scan(GVUSB_SCAN_FIRST, nullptr);
}

template <int option>
int scan() {
    return GVUSB_Scan(option, &search);
}

template <int option>
int scanAndOpen() {
    return GVUSB_ScanAndOpen(option, &search);
}

} // namespace

std::vector<Operation> scanOperations() {
    return {
        {"scanAllNew", plugged, scan<GVUSB_SCAN_ALL>, scanOf<freshReaders>},
        {"scanFirstKnown", scanned, scan<GVUSB_SCAN_FIRST>, scanOf<freshReaders>},
        {"scanAllOpen", exchanging, scan<GVUSB_SCAN_ALL>, scanOf<openReaders>},
        {"scanAll15ClosedReplugged", closedReplugged, scan<GVUSB_SCAN_ALL_15>, scanOf<firstComesLast>},
        {"scanAllOpenReplugged", openReplugged, scan<GVUSB_SCAN_ALL>, scanOf<firstComesLastOthersOpen>},
        {"search", plugged, scan<GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH>, searchOf},
        {"scanAndOpenAll", plugged, scanAndOpen<GVUSB_SCAN_ALL>, scanAndOpenAllOf, closeAll},
        {"scanAndOpenAllOpen", exchanging, scanAndOpen<GVUSB_SCAN_ALL>, scanOf<openReaders>},
        {"scanAndOpenAllReplugged", openReplugged, scanAndOpen<GVUSB_SCAN_ALL>,
         scanOf<firstComesLastOthersOpen>},
        {"scanAndOpenFirst", plugged, scanAndOpen<GVUSB_SCAN_FIRST>, scanAndOpenFirstOf, closeAll},
        {"scanAndOpenNext", toFirstEntry, scanAndOpen<GVUSB_SCAN_NEXT>, openNextOf, backToFirstEntry},
    };
}

} // namespace failures
