#include "model/text.h"

#include <array>
#include <charconv>
#include <cstdio>

namespace emulator {

namespace {

constexpr std::string_view blanks = " \t\r\n";

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

} // namespace

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string_view withoutByteOrderMark(std::string_view text) {
    constexpr std::string_view mark = "\xEF\xBB\xBF";
    return text.starts_with(mark) ? text.substr(mark.size()) : text;
}

std::vector<std::string> splitEscaped(std::string_view text, char separator) {
    std::vector<std::string> pieces(1);
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            pieces.back() += text[++i];
        } else if (text[i] == separator) {
            pieces.emplace_back();
        } else {
            pieces.back() += text[i];
        }
    }
    return pieces;
}

std::string_view takeWord(std::string_view& text) {
    text = trimmed(text);
    const auto end = text.find_first_of(blanks);
    const std::string_view word = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view{} : trimmed(text.substr(end));
    return word;
}

std::uint64_t number(std::string_view what, std::string_view text, std::uint64_t lowest,
                     std::uint64_t highest) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const std::string_view digits = hexadecimal ? text.substr(2) : text;
    std::uint64_t value = 0;
    const char* end = digits.data() + digits.size();
    const auto [stopped, error] = std::from_chars(digits.data(), end, value, hexadecimal ? 16 : 10);
    if (error != std::errc{} || stopped != end || value < lowest || value > highest) {
        throw TextError(std::string(what) + " must be a number from " + std::to_string(lowest) + " to " +
                        std::to_string(highest) + ", not '" + std::string(text) + "'");
    }
    return value;
}

Bytes hexBytes(std::string_view what, std::string_view text) {
    Bytes bytes;
    int high = -1;
    for (const char c : text) {
        if (blanks.find(c) != std::string_view::npos && high < 0) {
            continue;
        }
        const int digit = hexDigit(c);
        if (digit < 0) {
            throw TextError(std::string(what) + " must be pairs of hexadecimal digits, not '" +
                            std::string(text) + "'");
        }
        if (high < 0) {
            high = digit;
        } else {
            bytes.push_back(static_cast<std::uint8_t>(high * 16 + digit));
            high = -1;
        }
    }
    if (high >= 0) {
        throw TextError(std::string(what) + " must have two digits for each byte, not '" + std::string(text) +
                        "'");
    }
    return bytes;
}

std::string hexText(std::span<const std::uint8_t> bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

std::string numbered(const char* format, unsigned first, unsigned second) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), format, first, second);
    return text.data();
}

} // namespace emulator
