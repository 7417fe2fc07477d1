// Checks that abort the process when they fail.
#pragma once

#include <string>
#include <string_view>

namespace call_sequences {

// Record the step for the message of a failed check. The name must be a string literal.
void setCurrentStep(std::string_view name) noexcept;

// Print the last steps and the failed check to standard error, and abort.
[[noreturn]] void fail(const std::string& what);

template <class Number>
void expectEqual(Number actual, Number expected, const char* what) {
    if (actual != expected) {
        fail(std::string(what) + " is " + std::to_string(actual) + " instead of " + std::to_string(expected));
    }
}

inline void expect(bool holds, const char* what) {
    if (!holds) {
        fail(what);
    }
}

} // namespace call_sequences
