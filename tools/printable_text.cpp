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

std::string asPrinted(std::string_view text) {
    constexpr unsigned char firstOutsideAscii = 0x80;
    constexpr unsigned char firstLeading = 0xC0;
    constexpr unsigned char firstOfFourBytes = 0xF0; // encodes a character with two UTF-16 units
    std::string result;
    for (const char character : printable(text)) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < firstOutsideAscii) {
            result += character;
        } else if (byte >= firstLeading) {
            result += byte >= firstOfFourBytes ? "??" : "?";
        }
    }
    return result;
}
