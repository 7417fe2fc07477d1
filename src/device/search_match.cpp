#include "device/search_match.h"

#include "base/numbers.h"
#include "gvusb.h"

bool matches(const _GVUSB_SCANSEARCH* search, const ReaderIdentity& reader) {
    if (search == nullptr) {
        return true;
    }
    if (search->mask & GVUSB_SEARCH_FAMILY_NAME) {
        return reader.famName == fieldText(search->famName);
    }
    if (search->mask & GVUSB_SEARCH_DEVICE_NAME) {
        return reader.devName == fieldText(search->devName);
    }
    if (search->mask & GVUSB_SEARCH_DEVICE_ID) {
        return hexadecimalNumber(fieldText(search->devId)) == reader.devId;
    }
    return false;
}
