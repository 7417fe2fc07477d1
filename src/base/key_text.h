// Case-insensitive comparison of keys and protocol names.
#pragma once

#include <cstddef>
#include <utility>

// Copy src to dst in upper case, by the process's locale. dst must be large enough. Exported for programs; the
// library itself uses isKey().
void g_ToUpperString(const char* src, char* dst);

// Does not depend on the locale: keys are ASCII.
bool equalsInUpperCase(const char* text, const char* known) noexcept;

template <std::size_t Size, std::size_t... I>
bool equals(const char* text, const char (&known)[Size], std::index_sequence<I...> /*indices*/) noexcept {
    return ((text[I] == known[I]) && ...);
}

// Whether a text is the known key, which is given in upper case. Inline for the usual case, a text in upper case.
template <std::size_t Size>
bool isKey(const char* text, const char (&known)[Size]) noexcept {
    return equals(text, known, std::make_index_sequence<Size>()) || equalsInUpperCase(text, known);
}
