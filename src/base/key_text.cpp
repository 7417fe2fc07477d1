#include "base/key_text.h"

#include <cctype>

namespace {

constexpr char upperCase(char c) noexcept {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

} // namespace

void g_ToUpperString(const char* src, char* dst) {
    for (; *src != '\0'; ++src, ++dst) {
        *dst = static_cast<char>(std::toupper(static_cast<unsigned char>(*src)));
    }
    *dst = '\0';
}

bool equalsInUpperCase(const char* text, const char* known) noexcept {
    for (; *known != '\0'; ++text, ++known) {
        if (upperCase(*text) != *known) {
            return false;
        }
    }
    return *text == '\0';
}
