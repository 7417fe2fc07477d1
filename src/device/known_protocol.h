// The protocol of the frames.
#pragma once

#include "base/key_text.h"
#include "gvusb.h"

inline bool isKnownProtocol(const char* interfaceName) {
    return isKey(interfaceName, GVUSB_PROTOCOL);
}
