// The usual cause of each published code, and what to do about it.
#pragma once

#include <span>
#include <string_view>

struct Explanation {
    int code;
    std::string_view cause;
    std::string_view remedy; // may be empty
};

// In the order of the public header.
std::span<const Explanation> explanations();

// Null for a code that is not published.
const Explanation* findExplanation(int code);
