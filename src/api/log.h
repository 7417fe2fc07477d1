// Log output: lines on standard output, stamped with the time since the level was set.
//
// Any thread may log. Each line is one call of printf, which does not mix lines of several threads. The level and
// the start time are accessed without a lock.
//
// Callers test the level first, so that a message costs nothing when it is not printed:
//     if (GVLOG_Level() > 1) logLine("ident", "devId=0x", std::hex, devId);
// Level 1 shows what the manager does, level 2 adds the work on each reader, and level 3 what happens at each
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
// "used" keeps the function in the library for programs that call it.
[[gnu::used]] inline int GVLOG_Level() {
    return relaxed::load(g_GvUsbDebugLevel);
}
void GVLOG_Msg(const char* tag, const char* text);

// Log a message made of these pieces. They are passed by value to keep the callers' variables in registers.
// std::hex applies to the rest of the message; a null text ends the message. If there is no memory for the
// message, it is omitted and the caller continues, even where it must not throw.
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
