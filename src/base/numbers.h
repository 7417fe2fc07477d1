// Numbers in texts, in the format of the C library. Decimal numbers out of range are clamped.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string_view>

// Return the decimal number at the start of a text, after optional blanks and a sign. Text after the digits is
// ignored. Empty if there are no digits.
template <class Number>
std::optional<Number> leadingNumber(const char* text) noexcept {
    static_assert(std::numeric_limits<Number>::digits <= 32, "has to fit a long long whole");
    char* end = nullptr;
    const long long value = std::strtoll(text, &end, 10);
    if (end == text) {
        return std::nullopt;
    }
    return static_cast<Number>(
        std::clamp<long long>(value, std::numeric_limits<Number>::min(), std::numeric_limits<Number>::max()));
}

// Return the number at the start of a text, as scanf's "%lu" reads it.
std::optional<std::uint32_t> unsignedNumber(const char* text);

// Return the hexadecimal number at the start of a text, as scanf's "%x" reads it: after optional blanks and "0x".
// Text after the digits is ignored. Empty if there are no digits.
std::optional<std::uint32_t> hexadecimalNumber(std::string_view text);

// Write a number in decimal. The buffer must be large enough. Much faster than snprintf.
template <class Number>
void writeDecimal(char* text, Number number) noexcept {
    constexpr int longest = std::numeric_limits<Number>::digits10 + 2; // a sign and one digit more
    *std::to_chars(text, text + longest, number).ptr = '\0';
}
