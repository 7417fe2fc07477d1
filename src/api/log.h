// Log output: single lines on standard output, stamped with the time since the level was set.
//
// Any thread may log. Each line is one print, which the C library writes as a whole; the level and the start
// time are read and written without a lock.
//
// Callers test the level first, so that a message costs nothing when it is not printed:
//     if (GVLOG_Level() > 1) logLine("ident", "devId=0x", std::hex, devId);
// A level above 0 shows what the manager does, above 1 the work on each reader, above 2 what happens at each
// poll.
#pragma once

#include "base/relaxed.h"

#include <locale>
#include <new>
#include <sstream>

#include <sys/time.h>

extern int g_GvUsbDebugLevel;
extern struct timeval g_GvUsbStarttime;

void GVLOG_SetLevel(int level);
// Used: the library exports it too, for programs that call it.
[[gnu::used]] inline int GVLOG_Level() {
    return relaxed::load(g_GvUsbDebugLevel);
}
void GVLOG_Msg(const char* tag, const char* text);

// Streams the pieces into one message. They come by value, which leaves the callers' variables in registers.
// std::hex holds to the end of the message; a null text ends it there. A message that there is no memory for is
// left out: what it tells of goes on, also where nothing may be thrown.
template <class... Pieces>
[[gnu::cold, gnu::noinline]] void logLine(const char* tag, Pieces... pieces) {
    try {
        std::ostringstream message;
        message.imbue(std::locale::classic());
        (message << ... << pieces);
        GVLOG_Msg(tag, message.str().c_str());
    } catch (const std::bad_alloc&) {
        return;
    }
}
