// What commands share on the command line, whichever readers they work with.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

#include <CLI/CLI.hpp>

// Accepts what parseDeviceId() can read; not a path.
extern const CLI::Validator isDeviceId;

// Why isDeviceId rejects a text.
std::string notADeviceId(const std::string& text);

// The help below the options. Each section is a raw string whose text starts and ends with a line break.
std::string joinSections(std::initializer_list<std::string_view> sections);
