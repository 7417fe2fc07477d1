#include "wrapped_text.h"

std::string wrapped(std::string_view label, std::string_view text) {
    constexpr std::size_t width = 80;
    std::string result;
    std::string line(label);
    bool isFresh = true;
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(text.size(), word.size() + 1));
        if (!isFresh && line.size() + 1 + word.size() > width) {
            result += line + '\n';
            line.assign(label.size(), ' ');
            isFresh = true;
        }
        line += (isFresh ? "" : " ") + std::string(word);
        isFresh = false;
    }
    return result + line + '\n';
}
