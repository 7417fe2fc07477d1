#include "reader.h"

#include "failure.h"
#include "hexadecimal.h"
#include "note.h"
#include "usb_location.h"
#include "usb_path.h"

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
                  "; using the first one. 'gvusb list' shows the USB paths by which to choose another.");
    }
    return check(title, GVUSB_OpenDevice(id));
}

// The library does not say where a reader is, so this opens one after the other.
int openByPath(const std::string& path, const std::string& title) {
    int failure = GVUSB_ERR_NO_DEVICE_FOUND;
    int handle = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr);
    const int size = GVUSB_GetScanListSize();
    for (int index = 0; index < size; ++index) {
        if (index != 0) {
            handle = GVUSB_ScanAndOpen(GVUSB_SCAN_NEXT, nullptr);
        }
        if (handle <= 0) {
            failure = handle;
            continue;
        }
        if (const auto location = locationOfOpenReader(); location && location->path == path) {
            return handle;
        }
        GVUSB_CloseDevice(handle);
    }
    throw Failure(title + ": " + codeText(failure), statusOf(failure),
                  "Run 'gvusb list' to see the readers on the bus, or 'gvusb doctor' if one is missing.");
}

int openByName(const std::string& name, const std::string& title) {
    return isUsbPath(name) ? openByPath(name, title) : openById(parseDeviceId(name).value_or(0), title);
}

std::string titleOf(const std::string& name) {
    return "reader " + (isUsbPath(name) ? name : deviceIdText(parseDeviceId(name).value_or(0)));
}

} // namespace

std::string readParameter(const std::string& title, int handle, const std::string& key) {
    std::array<char, GVUSB_PARAMETER_SIZE> value{};
    check(title + ": " + key, GVUSB_GetDevicePara(handle, key.c_str(), value.data()));
    return value.data();
}

Reader::Reader(const std::string& name)
    : m_title(titleOf(name))
    , m_handle(openByName(name, m_title)) {
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
