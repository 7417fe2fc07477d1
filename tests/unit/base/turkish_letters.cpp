#include "turkish_letters.h"

#include <array>

namespace {

constexpr int firstEntry = -128; // the C library's table starts there
constexpr int lastEntry = 255;

constexpr auto upperCase(bool turkish) {
    std::array<int, lastEntry - firstEntry + 1> table{};
    for (int c = firstEntry; c <= lastEntry; ++c) {
        table[static_cast<std::size_t>(c - firstEntry)] = c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c;
    }
    if (turkish) {
        table['i' - firstEntry] = 0xDD;
        table[0xFD - firstEntry] = 'I';
        table[static_cast<std::size_t>(static_cast<signed char>(0xFD) - firstEntry)] = 'I';
    }
    return table;
}

constexpr auto plainTable = upperCase(false);
constexpr auto turkishTable = upperCase(true);
thread_local bool turkish = false;

const int* table() {
    return (turkish ? turkishTable : plainTable).data() - firstEntry;
}

} // namespace

// The two ways in which the C library's header calls the conversion.
extern "C" int toupper(int c) noexcept {
    return c >= firstEntry && c <= lastEntry ? table()[c] : c;
}

extern "C" const int** __ctype_toupper_loc() noexcept {
    thread_local const int* current;
    current = table();
    return &current;
}

TurkishLetters::TurkishLetters() {
    turkish = true;
}

TurkishLetters::~TurkishLetters() {
    turkish = false;
}
