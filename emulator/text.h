// Small readings and writings of text: splitting, numbers, hexadecimal bytes.
//
// Plain functions on plain values; any thread may call them.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace emulator {

using Bytes = std::vector<std::uint8_t>;

// What somebody wrote cannot be understood; what() names the piece and says what was expected.
class TextError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

std::string_view trimmed(std::string_view text);

// The pieces between separators. A backslash takes the next character as it stands and is itself dropped.
std::vector<std::string> splitEscaped(std::string_view text, char separator);

// Takes the first blank-separated word off `text`; what remains begins with its next word.
std::string_view takeWord(std::string_view& text);

// A decimal or 0x-hexadecimal number from `lowest` to `highest`; `what` names it in the error.
std::uint64_t number(std::string_view what, std::string_view text, std::uint64_t lowest,
                     std::uint64_t highest);

// "0102FF" to bytes; blanks between bytes are allowed.
Bytes hexBytes(std::string_view what, std::string_view text);

// Bytes to "0102ff".
std::string hexText(std::span<const std::uint8_t> bytes);

// A short text with two numbers in it, such as "%03u/%03u".
std::string numbered(const char* format, unsigned first, unsigned second = 0);

} // namespace emulator
