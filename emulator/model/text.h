// Text helpers: splitting, numbers, hexadecimal bytes.
//
// Any thread may call them.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace emulator {

using Bytes = std::vector<std::uint8_t>;

// A mistake in a description, a command or a script. what() quotes the mistake and says what was expected.
class TextError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

std::string_view trimmed(std::string_view text);

// The text of a file without a UTF-8 byte-order mark at its beginning.
std::string_view withoutByteOrderMark(std::string_view text);

// The pieces between separators. A backslash quotes the next character and is dropped.
std::vector<std::string> splitEscaped(std::string_view text, char separator);

// Remove the first word from `text` and return it. The rest starts with the next word.
std::string_view takeWord(std::string_view& text);

// A number from `lowest` to `highest`, decimal or hexadecimal with 0x. `what` names it in the error.
std::uint64_t number(std::string_view what, std::string_view text, std::uint64_t lowest,
                     std::uint64_t highest);

// The bytes of "0102FF". Blanks may separate bytes.
Bytes hexBytes(std::string_view what, std::string_view text);

// "0102ff".
std::string hexText(std::span<const std::uint8_t> bytes);

// At most two numbers in a short format such as "%03u/%03u".
std::string numbered(const char* format, unsigned first, unsigned second = 0);

} // namespace emulator
