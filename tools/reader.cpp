#include "reader.h"

#include "failure.h"
#include "hexadecimal.h"
#include "note.h"

#include <array>
#include <cstdio>

#include <strings.h>

namespace {

GVUSB_SCANSEARCH searchForId(unsigned int id) {
    GVUSB_SCANSEARCH search = {};
    search.mask = GVUSB_SEARCH_DEVICE_ID;
    std::snprintf(search.devId, sizeof search.devId, "%X", id);
    return search;
}

int openById(unsigned int id, const std::string& title) {
    GVUSB_SCANSEARCH search = searchForId(id);
    if (const int code = GVUSB_Scan(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, &search); code < 0) {
        throw Failure(title + ": " + codeText(code), statusOf(code),
                      "Run 'gvusb list' to see the readers on the bus, or 'gvusb doctor' if one is missing.");
    }
    if (const int count = GVUSB_GetScanListSize(); count > 1) {
        printNote(std::to_string(count) + " readers have the device ID " + deviceIdText(id) +
                  "; using the first one.");
    }
    return check(title, GVUSB_OpenDevice(id));
}

} // namespace

std::string readParameter(const std::string& title, int handle, const std::string& key) {
    std::array<char, GVUSB_PARAMETER_SIZE> value{};
    check(title + ": " + key, GVUSB_GetDevicePara(handle, key.c_str(), value.data()));
    return value.data();
}

Reader::Reader(unsigned int id)
    : m_title("reader " + deviceIdText(id))
    , m_handle(openById(id, m_title)) {
}

Reader::~Reader() {
    GVUSB_CloseDevice(m_handle);
}

std::string Reader::parameter(const std::string& key) const {
    if (::strcasecmp(key.c_str(), "PRESENT") == 0) {
        return check(m_title, GVUSB_IsDevicePresent(m_handle)) == 1 ? "1" : "0";
    }
    return readParameter(m_title, m_handle, key);
}
