// Points in time as commands print them.
#pragma once

#include <chrono>
#include <optional>
#include <string>

// In the local time zone: "2024-05-01T12:34:56.789+02:00".
std::string timeStamp(std::chrono::system_clock::time_point time);

// Read a time such as "2024-05-01T10:34:56.789Z", the fraction with up to nine digits.
std::optional<std::chrono::system_clock::time_point> parseTimeStamp(const std::string& text);
