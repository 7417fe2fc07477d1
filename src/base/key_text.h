// Keys and protocol names as callers give them, for comparison without regard to case.
#pragma once

#include <cstddef>
#include <utility>

// Copies src to dst, which must have room, in the upper case of the process's locale. Exported; the library itself
// compares keys where they stand, by what follows.
void g_ToUpperString(const char* src, char* dst);

// Keys are ASCII, and the same keys in every locale.
bool equalsInUpperCase(const char* text, const char* known) noexcept;

template <std::size_t Size, std::size_t... I>
bool equals(const char* text, const char (&known)[Size], std::index_sequence<I...> /*indices*/) noexcept {
    return ((text[I] == known[I]) && ...);
}

// Whether a text is the known key, which is given in upper case. It is mostly written so, and then each character is one
// comparison in the caller's own code.
template <std::size_t Size>
bool isKey(const char* text, const char (&known)[Size]) noexcept {
    return equals(text, known, std::make_index_sequence<Size>()) || equalsInUpperCase(text, known);
}
