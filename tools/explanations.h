// The usual cause of each published code, and what to do about it.
#pragma once

#include <span>
#include <string_view>

struct Explanation {
    int code;
    std::string_view name; // as in the public header
    std::string_view cause;
    std::string_view remedy; // may be empty
};

// In the order of the public header.
std::span<const Explanation> explanations();

// Null for a code that is not published.
const Explanation* findExplanation(int code);

// By its name, with or without "GVUSB_ERR_", in upper or lower case. Null for any other text.
const Explanation* findExplanation(std::string_view name);
