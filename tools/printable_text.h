// A reader's text with '?' for each control character, which could move a terminal's cursor.
#pragma once

#include <string>
#include <string_view>

std::string printable(std::string_view text);
