#include "base/log.h"

#include <cstdio>

int g_GvUsbDebugLevel = 0;
struct timeval g_GvUsbStarttime = {};

void GVLOG_SetLevel(int level) {
    struct timeval now = {};
    gettimeofday(&now, nullptr);
    relaxed::store(g_GvUsbStarttime.tv_sec, now.tv_sec);
    relaxed::store(g_GvUsbStarttime.tv_usec, now.tv_usec);
    relaxed::store(g_GvUsbDebugLevel, level);
}

void GVLOG_Msg(const char* tag, const char* text) {
    if (GVLOG_Level() <= 0) {
        return;
    }
    struct timeval now = {};
    gettimeofday(&now, nullptr);
    auto seconds = now.tv_sec - relaxed::load(g_GvUsbStarttime.tv_sec);
    auto microseconds = now.tv_usec - relaxed::load(g_GvUsbStarttime.tv_usec);
    if (microseconds < 0) {
        microseconds += 1000000;
        seconds -= 1;
    }
    if (seconds < 0) { // the clock was set back
        seconds = 0;
        microseconds = 0;
    }
    std::printf("%2lu.%06d :: gvusb: [%s] %s\n", static_cast<unsigned long>(seconds),
                static_cast<int>(microseconds), tag, text);
}
