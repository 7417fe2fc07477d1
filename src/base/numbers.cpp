#include "base/numbers.h"

#include <cstdio>

std::optional<std::uint32_t> unsignedNumber(const char* text) {
    unsigned long number = 0;
    if (std::sscanf(text, "%lu", &number) != 1) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(
        std::min<unsigned long>(number, std::numeric_limits<std::uint32_t>::max()));
}

std::optional<std::uint32_t> hexadecimalNumber(std::string_view text) {
    // Longer than any string descriptor and any text of a search record.
    char terminated[256] = {};
    text.copy(terminated, sizeof terminated - 1);
    unsigned int number = 0;
    if (std::sscanf(terminated, "%x", &number) != 1) {
        return std::nullopt;
    }
    return number;
}
