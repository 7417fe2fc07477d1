// A reader's text with '?' for each control character, which could move a terminal's cursor.
#pragma once

#include <string>
#include <string_view>

std::string printable(std::string_view text);

// A text in UTF-8 as it would be printed if a reader had it. Besides control characters, '?' then stands for each
// UTF-16 unit outside ASCII, because libusb reads string descriptors as ASCII.
std::string asPrinted(std::string_view text);
