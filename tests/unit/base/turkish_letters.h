// Makes toupper() of this thread behave as in a Turkish 8-bit locale: 'i' becomes 0xDD.
//
// Replaces setlocale(), which requires that such a locale is installed.
#pragma once

class [[nodiscard]] TurkishLetters {
public:
    TurkishLetters();
    ~TurkishLetters();
    TurkishLetters(const TurkishLetters&) = delete;
    TurkishLetters& operator=(const TurkishLetters&) = delete;
};
