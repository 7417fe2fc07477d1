// The hexadecimal dump of a frame, as one line of text in a buffer of fixed size.
#pragma once

#include <cstddef>
#include <span>

using HexDump = char[4096];

// Writes the prefix and, after it, each byte as two upper-case digits and a blank; what does not fit is left
// out.
void dumpHex(HexDump& text, const char* prefix, std::span<const unsigned char> bytes) noexcept;
