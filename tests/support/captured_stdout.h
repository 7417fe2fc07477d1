// Captures what the program writes to the C library's stdout, as text and as log lines.
//
// The capture affects the whole process, so only one can exist at a time. Other threads may print meanwhile.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace support {

class CapturedStdout {
public:
    CapturedStdout(); // throws std::system_error if stdout cannot be redirected

    // Restores stdout, and prints the captured lines that are not log lines. This keeps messages of the test
    // framework, such as failed expectations.
    ~CapturedStdout();

    CapturedStdout(const CapturedStdout&) = delete;
    CapturedStdout& operator=(const CapturedStdout&) = delete;

    // Everything written since the construction or the last call, including unflushed output.
    std::string takeText();

    // takeText(), parsed by logLines().
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

// The time of a log line, such as " 3.500000"; empty if the line is malformed.
std::string logTime(std::string_view line);

} // namespace support
