#include "printable_text.h"

#include <algorithm>

std::string printable(std::string_view text) {
    constexpr unsigned char firstPrintable = 0x20;
    constexpr unsigned char deleteCharacter = 0x7F;
    std::string result(text);
    std::ranges::replace_if(
        result, [](unsigned char c) { return c < firstPrintable || c == deleteCharacter; }, '?');
    return result;
}
