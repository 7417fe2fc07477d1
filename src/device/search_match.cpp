#include "device/search_match.h"

#include "base/numbers.h"
#include "gvusb.h"

#include <cstddef>
#include <cstring>

// The pointer is derived from the record instead of the field, because the text may end after our field.
std::string_view deviceIdText(const _GVUSB_SCANSEARCH& search) {
    constexpr std::size_t longestText = 255;
    const char* const text =
        reinterpret_cast<const char*>(&search) + offsetof(struct _GVUSB_SCANSEARCH, devId);
    return {text, strnlen(text, longestText)};
}

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
        return hexadecimalNumber(deviceIdText(*search)) == reader.devId;
    }
    return false;
}
