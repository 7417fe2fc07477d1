// Sentences broken into lines for a terminal.
#pragma once

#include <string>
#include <string_view>

// A label and a text, at most 80 columns wide. The lines after the first are indented by the width of the
// label.
std::string wrapped(std::string_view label, std::string_view text);
