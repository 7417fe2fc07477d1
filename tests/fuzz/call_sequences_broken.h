// The end of a program that has found something.
#pragma once

#include <string>
#include <string_view>

namespace call_sequences {

// What the program is doing, for the message: a text that lasts.
void setPresentStep(std::string_view name) noexcept;

// Tells on standard error which step broke what, and aborts.
[[noreturn]] void broken(const std::string& what);

template <class Number>
void expectEqual(Number actual, Number expected, const char* what) {
    if (actual != expected) {
        broken(std::string(what) + " is " + std::to_string(actual) + " instead of " +
               std::to_string(expected));
    }
}

inline void expect(bool holds, const char* what) {
    if (!holds) {
        broken(what);
    }
}

} // namespace call_sequences
