#include "hexadecimal.h"

#include <array>
#include <charconv>
#include <cstdio>

namespace {

constexpr std::string_view separators = " \t\r:,-";

void dropPrefix(std::string_view& text) {
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
    }
}

// Unlike from_chars, rejects a sign and anything that follows the digits.
template <class Number>
bool parseDigits(std::string_view digits, Number& number) {
    if (digits.find_first_not_of("0123456789abcdefABCDEF") != std::string_view::npos) {
        return false;
    }
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number, 16);
    return error == std::errc{} && stop == end;
}

bool appendWord(std::string_view word, Bytes& frame) {
    dropPrefix(word);
    if (word.empty() || word.size() % 2 != 0) {
        return false;
    }
    for (; !word.empty(); word.remove_prefix(2)) {
        unsigned char byte = 0;
        if (!parseDigits(word.substr(0, 2), byte)) {
            return false;
        }
        frame.push_back(byte);
    }
    return true;
}

} // namespace

std::optional<unsigned int> parseDeviceId(std::string_view text) {
    constexpr std::size_t mostDigits = 8;
    dropPrefix(text);
    unsigned int id = 0;
    if (text.empty() || text.size() > mostDigits || !parseDigits(text, id)) {
        return std::nullopt;
    }
    return id;
}

std::string deviceIdText(unsigned int id) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%X", id);
    return text.data();
}

std::optional<Bytes> parseFrame(std::string_view text) {
    Bytes frame;
    for (;;) {
        const std::size_t begin = text.find_first_not_of(separators);
        if (begin == std::string_view::npos) {
            break;
        }
        text.remove_prefix(begin);
        const std::string_view word = text.substr(0, text.find_first_of(separators));
        if (!appendWord(word, frame)) {
            return std::nullopt;
        }
        text.remove_prefix(word.size());
    }
    if (frame.empty()) {
        return std::nullopt;
    }
    return frame;
}

std::string frameText(std::span<const unsigned char> frame, std::string_view separator) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    text.reserve(frame.size() * (2 + separator.size()));
    for (const unsigned char byte : frame) {
        if (!text.empty()) {
            text += separator;
        }
        text += digits[byte >> 4];
        text += digits[byte & 0xF];
    }
    return text;
}
