// Settings of the configuration file that do not do what they seem to.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

struct SettingMistake {
    std::size_t line; // counted from 1
    std::string text;
    std::string remedy;
};

// The mistakes in the part of the file that the library reads, in the order of their lines.
std::vector<SettingMistake> findSettingMistakes(std::string_view text);
