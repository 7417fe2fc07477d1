// Sentences broken into lines for a terminal.
#pragma once

#include "output.h"

#include <cstddef>
#include <string>
#include <string_view>

// A label and a text in lines of at most this width. The lines after the first are indented by the width of the
// label.
std::string wrapped(std::string_view label, std::string_view text, std::size_t width = output::width());

// The same for text that already has lines, such as a help text: breaks only lines that are too long. In a table, the
// rest is indented as the last column; in a paragraph, it is joined with the next line.
std::string rewrapped(std::string_view text, std::size_t width = output::width());
