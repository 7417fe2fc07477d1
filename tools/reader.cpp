#include "reader.h"

#include "failure.h"
#include "hexadecimal.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>

#include <strings.h>

namespace {

GVUSB_SCANSEARCH searchForId(unsigned int id) {
    GVUSB_SCANSEARCH search = {};
    search.mask = GVUSB_SEARCH_DEVICE_ID;
    std::snprintf(search.devId, sizeof search.devId, "%X", id);
    return search;
}

std::string scanned(int index, const char* key) {
    std::array<char, GVUSB_PARAMETER_SIZE> value{};
    const int code = GVUSB_GetScanListPara(index, key, value.data());
    return code == 0 ? value.data() : std::string{};
}

std::optional<std::string> typeNumberOf(int handle) {
    std::array<char, GVUSB_PARAMETER_SIZE> value{};
    if (handle <= 0)
        return std::nullopt;
    const int code = GVUSB_GetDevicePara(handle, "TYPENUMBER", value.data());
    // At once: a second reader with the same device ID can only be opened while this one is closed.
    GVUSB_CloseDevice(handle);
    return code == 0 ? std::optional<std::string>(value.data()) : std::nullopt;
}

int openById(unsigned int id, const std::string& title) {
    GVUSB_SCANSEARCH search = searchForId(id);
    if (const int code = GVUSB_Scan(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, &search); code < 0)
        throw Failure(title + ": " + libraryText(code), statusOf(code),
                      "'gvusb list' shows the readers on the bus, 'gvusb doctor' why one may be missing.");
    if (const int count = GVUSB_GetScanListSize(); count > 1)
        std::fprintf(stderr, "gvusb: note: %d readers have the device ID %s; this is the first of them.\n",
                     count, deviceIdText(id).c_str());
    return check(title, GVUSB_OpenDevice(id));
}

} // namespace

std::vector<ReaderFacts> findReaders(GVUSB_SCANSEARCH* search) {
    std::vector<ReaderFacts> readers;
    const int withSearch = search != nullptr ? GVUSB_SCAN_SEARCH : 0;
    int option = GVUSB_SCAN_FIRST;
    for (int index = 0;; ++index) {
        const int handle = GVUSB_ScanAndOpen(option | withSearch, search);
        if (index >= GVUSB_GetScanListSize())
            return readers;
        readers.push_back({.id = scanned(index, "DEVICE-ID"),
                           .family = scanned(index, "FAMILYNAME"),
                           .name = scanned(index, "DEVICENAME"),
                           .interfaceType = scanned(index, "INTERFACE"),
                           .typeNumber = typeNumberOf(handle)});
        option = GVUSB_SCAN_NEXT;
    }
}

std::string readParameter(const std::string& title, int handle, const std::string& key) {
    std::array<char, GVUSB_PARAMETER_SIZE> value{};
    check(title + ": " + key, GVUSB_GetDevicePara(handle, key.c_str(), value.data()));
    return value.data();
}

Reader::Reader(unsigned int id)
    : title_("reader " + deviceIdText(id))
    , handle_(openById(id, title_)) {
}

Reader::~Reader() {
    GVUSB_CloseDevice(handle_);
}

std::string Reader::parameter(const std::string& key) const {
    if (::strcasecmp(key.c_str(), "PRESENT") == 0)
        return check(title_, GVUSB_IsDevicePresent(handle_)) == 1 ? "1" : "0";
    return readParameter(title_, handle_, key);
}
