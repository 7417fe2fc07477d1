// Numbers in texts, read and written as C does; decimal numbers that do not fit saturate.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string_view>

// The decimal number at the start of a text: leading blanks and a sign are accepted, what follows the digits
// is ignored. Nothing when there are no digits.
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

// The number at the start of a text, as the conversion "%lu" reads it.
std::optional<std::uint32_t> unsignedNumber(const char* text);

// The hexadecimal number at the start of a text, as the conversion "%x" reads it: leading blanks and "0x" are
// accepted, what follows the digits is ignored. Nothing when there are no digits.
std::optional<std::uint32_t> hexadecimalNumber(std::string_view text);

// Writes a number in decimal digits, for which there must be room. Much quicker than a format.
template <class Number>
void writeDecimal(char* text, Number number) noexcept {
    constexpr int longest = std::numeric_limits<Number>::digits10 + 2; // a sign and one digit more
    *std::to_chars(text, text + longest, number).ptr = '\0';
}
