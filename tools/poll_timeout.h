// Points in time as poll() needs them.
#pragma once

#include <chrono>

// How many milliseconds are left, rounded up; 0 if it has come.
int millisecondsUntil(std::chrono::steady_clock::time_point time);
