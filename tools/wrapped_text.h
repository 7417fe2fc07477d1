// Sentences broken into lines for a terminal.
#pragma once

#include <string>
#include <string_view>

// At most 80 columns wide; the lines after the first are indented to stand below the text.
std::string wrapped(std::string_view label, std::string_view text);
