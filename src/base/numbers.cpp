#include "base/numbers.h"

#include <cstdio>
#include <string>

std::optional<std::uint32_t> unsignedNumber(const char* text) {
    unsigned long number = 0;
    if (std::sscanf(text, "%lu", &number) != 1) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(
        std::min<unsigned long>(number, std::numeric_limits<std::uint32_t>::max()));
}

std::optional<std::uint32_t> hexadecimalNumber(std::string_view text) {
    unsigned int number = 0;
    if (std::sscanf(std::string(text).c_str(), "%x", &number) != 1) {
        return std::nullopt;
    }
    return number;
}
