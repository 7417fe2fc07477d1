#include "base/key_text.h"

#include <cstring>

namespace {

constexpr char upper(char c) noexcept {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

} // namespace

void g_ToUpperString(const char* src, char* dst) {
    for (; *src != '\0'; ++src, ++dst) {
        *dst = upper(*src);
    }
    *dst = '\0';
}

UpperKey::UpperKey(const char* key) noexcept {
    if (strnlen(key, sizeof m_text) < sizeof m_text) {
        g_ToUpperString(key, m_text);
    } else {
        m_text[0] = '\0';
    }
}
