// Log output: lines on standard output, on standard error or in a file, stamped with the time since the level was set.
//
// Any thread may log. Each line is one call of printf or of writev, which do not mix lines of several threads. The level
// and the start time are accessed without a lock.
//
// log() tests the level first, so a message costs nothing when it is not printed:
//     log<Level::reader>("ident", "devId=0x", std::hex, devId);
#pragma once

#include "base/relaxed.h"

#include <locale>
#include <new>
#include <sstream>
#include <type_traits>

#include <sys/time.h>

extern int g_GvUsbDebugLevel;
extern struct timeval g_GvUsbStarttime;

// The lowest level at which a message is printed.
enum class Level {
    manager = 1, // what the manager does
    reader = 2,  // the work on each reader
    poll = 3,    // what happens at each poll
};

void GVLOG_SetLevel(int level);
// "used" keeps the function in the library for programs that call it.
[[gnu::used]] inline int GVLOG_Level() {
    return relaxed::load(g_GvUsbDebugLevel);
}
void GVLOG_Msg(const char* tag, const char* text);

// Append the log to the file at this path, or write it to standard error if the path is "stderr". If the file cannot be
// opened, print why on standard error and leave the log where it is.
void openLogFile(const char* path) noexcept;
// Return to standard output.
void closeLogFile() noexcept;

inline bool isLogged(Level level) {
    return GVLOG_Level() >= static_cast<int>(level);
}

// Return a piece of a message. A function is called for its result.
template <class Piece>
decltype(auto) pieceText(Piece& piece) {
    if constexpr (std::is_invocable_v<Piece&>) {
        return piece();
    } else {
        return (piece);
    }
}

// Log a message made of these pieces at any level above 0. They are passed by value to keep the callers' variables in
// registers. std::hex applies to the rest of the message; a null text ends the message. If there is no memory for the
// message, it is omitted and the caller continues, even where it must not throw.
template <class... Pieces>
[[gnu::cold, gnu::noinline]] void logLine(const char* tag, Pieces... pieces) {
    try {
        std::ostringstream message;
        message.imbue(std::locale::classic());
        (message << ... << pieceText(pieces));
        GVLOG_Msg(tag, message.str().c_str());
    } catch (const std::bad_alloc&) {
        return;
    }
}

// Log a message from this level on. Pass a function for a piece that costs something: it is called only if the message is
// printed.
template <Level level, class... Pieces>
[[gnu::always_inline]] inline void log(const char* tag, Pieces... pieces) {
    if (isLogged(level)) {
        logLine(tag, pieces...);
    }
}
