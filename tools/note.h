// Something worth knowing that is not a failure, as a line on standard error.
#pragma once

#include <string>

void printNote(const std::string& text);

// What the question marks in a reader's texts are.
inline constexpr const char* questionMarkNote =
    "'?' in a name may stand for a character that cannot be shown: texts of readers are read as ASCII.";
