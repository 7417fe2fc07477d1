#include "device/hex_dump.h"

#include <cstring>

namespace {

// Below this position there is room for three characters and the terminating zero.
constexpr std::size_t appendLimit = sizeof(HexDump) - 4;

} // namespace

void dumpHex(HexDump& text, const char* prefix, std::span<const unsigned char> bytes) noexcept {
    constexpr char digits[] = "0123456789ABCDEF";
    std::size_t position = strnlen(prefix, sizeof text - 1);
    std::memcpy(text, prefix, position);
    for (const unsigned char byte : bytes) {
        if (position >= appendLimit) {
            break;
        }
        text[position++] = digits[byte >> 4];
        text[position++] = digits[byte & 0xF];
        text[position++] = ' ';
    }
    text[position] = '\0';
}
