// What the program writes to the C library's stdout, as text, and the log lines in it.
//
// The capture concerns the whole process, so only one can exist at a time. Other threads may print meanwhile.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace support {

class CapturedStdout {
public:
    CapturedStdout(); // throws std::system_error when stdout cannot be redirected

    // Gives stdout back. Lines that are not log lines (a failed expectation's report, say) are printed then,
    // so that no message of the test framework is lost.
    ~CapturedStdout();

    CapturedStdout(const CapturedStdout&) = delete;
    CapturedStdout& operator=(const CapturedStdout&) = delete;

    // Everything written since the construction or the last call, unflushed output included.
    std::string takeText();

    // takeText() as logLines() reads it.
    std::vector<std::string> takeLogLines();

private:
    int original_ = -1;
    int file_ = -1;
    std::size_t taken_ = 0;
};

// The lines of a log without their times: "[tag] text" each. A line that is not exactly
//   seconds (at least two wide, blank-padded) "." six digits " :: gvusb: [" tag "] " text "\n"
// appears as "malformed: " and the line, so that no comparison passes by accident.
std::vector<std::string> logLines(std::string_view text);

// A time as the lines show it, " 3.500000", taken from one line; empty if the line is malformed.
std::string logTime(std::string_view line);

} // namespace support
