// Keys and protocol names as callers give them, for comparison without regard to case.
#pragma once

#include <cstddef>
#include <utility>

// Copies src to dst, which must have room, in upper case: ASCII letters only, whatever the process's locale.
void g_ToUpperString(const char* src, char* dst);

bool equalsInUpperCase(const char* text, const char* known) noexcept;

// Whether a text is the known key, which is given in upper case. It is mostly written so, and then each character is one
// comparison in the caller's own code.
template <std::size_t Size>
bool isKey(const char* text, const char (&known)[Size]) noexcept {
    const auto equals = [&]<std::size_t... I>(std::index_sequence<I...> /*indices*/) {
        return ((text[I] == known[I]) && ...);
    };
    return equals(std::make_index_sequence<Size>()) || equalsInUpperCase(text, known);
}
