// While it lives, C's toupper() answers in this thread as under a Turkish 8-bit locale: 'i' becomes 0xDD.
//
// Stands for setlocale(), which finds such a locale only on machines where it is installed.
#pragma once

class [[nodiscard]] TurkishLetters {
public:
    TurkishLetters();
    ~TurkishLetters();
    TurkishLetters(const TurkishLetters&) = delete;
    TurkishLetters& operator=(const TurkishLetters&) = delete;
};
