#include "device/gvdevice.h"

#include "base/log.h"
#include "device/hex_dump.h"

#include <cstdio>

void GVDevice::logBuffer(const char* tag, const char* prefix, const unsigned char* data, unsigned int len) {
    if (!isLogged(Level::reader)) {
        return;
    }
    HexDump text;
    dumpHex(text, prefix, {data, len});
    GVLOG_Msg(tag, text);
}

// With an empty precision, printf prints nothing for a count of 0.
void GVDevice::LogSent(const char* tag, const unsigned char* data, unsigned int len) {
    char prefix[64];
    std::snprintf(prefix, sizeof prefix, "%3.zu Bytes >> ", static_cast<std::size_t>(len));
    logBuffer(tag, prefix, data, len);
}

void GVDevice::LogReceived(const char* tag, const unsigned char* data, int count) {
    char prefix[64];
    std::snprintf(prefix, sizeof prefix, "%3.d Bytes << ", count);
    logBuffer(tag, prefix, data, static_cast<unsigned int>(count));
}
