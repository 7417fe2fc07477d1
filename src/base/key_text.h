// Keys and protocol names as callers give them, for comparison without regard to case.
#pragma once

#include <string_view>

// Copies src to dst, which must have room, in upper case: ASCII letters only, whatever the process's locale.
void g_ToUpperString(const char* src, char* dst);

// The upper-case form of a key. A key too long for the buffer is longer than any that exists and becomes an
// empty text, which equals none.
class UpperKey {
public:
    explicit UpperKey(const char* key) noexcept;
    bool operator==(std::string_view known) const noexcept { return known == m_text; }

private:
    char m_text[128];
};
