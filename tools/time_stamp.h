// Points in time as commands print them.
#pragma once

#include <chrono>
#include <string>

// In the local time zone: "2024-05-01T12:34:56.789+02:00".
std::string timeStamp(std::chrono::system_clock::time_point time);
