// Runs gnuplot.
#pragma once

#include <string>

// Give gnuplot a script; what it writes to its standard output goes to the file, or to the tool's output for "-". Throws
// Failure if gnuplot is not installed or fails, or if the file cannot be written.
void runGnuplot(const std::string& script, const std::string& path);
