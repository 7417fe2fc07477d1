// Hexadecimal dump of a frame as one line in a buffer of fixed size.
#pragma once

#include <cstddef>
#include <span>

using HexDump = char[4096];

// Write the prefix, then each byte as two upper-case digits and a blank. Bytes that do not fit are omitted.
void dumpHex(HexDump& text, const char* prefix, std::span<const unsigned char> bytes) noexcept;
