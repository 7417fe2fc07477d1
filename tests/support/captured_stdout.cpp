#include "captured_stdout.h"

#include "allocation_failure.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace support {
namespace {

constexpr std::string_view afterTime = " :: gvusb: ";
constexpr std::size_t fractionDigits = 6;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// The length of a time field as "%2lu.%06d" prints it at the start of the line; 0 if there is none.
std::size_t timeLength(std::string_view line) {
    const std::size_t point = line.find('.');
    if (point == std::string_view::npos || point < 2) {
        return 0;
    }
    const std::string_view seconds = line.substr(0, point);
    const bool padded = seconds.size() == 2 && seconds[0] == ' ';
    const std::string_view digits = padded ? seconds.substr(1) : seconds;
    const bool leadingZero = digits.size() > 1 && digits[0] == '0';
    const std::string_view fraction = line.substr(point + 1, fractionDigits);
    if (leadingZero || !std::ranges::all_of(digits, isDigit) || fraction.size() != fractionDigits ||
        !std::ranges::all_of(fraction, isDigit)) {
        return 0;
    }
    return point + 1 + fractionDigits;
}

// "[tag] text" of a line without its line feed; empty if the line has another form.
std::string_view message(std::string_view line) {
    const std::size_t time = timeLength(line);
    if (time == 0 || !line.substr(time).starts_with(afterTime)) {
        return {};
    }
    const std::string_view rest = line.substr(time + afterTime.size());
    return rest.starts_with('[') && rest.find("] ") != std::string_view::npos ? rest : std::string_view{};
}

template <class Visit>
void forEachLine(std::string_view text, Visit visit) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const bool complete = end != std::string_view::npos;
        visit(text.substr(0, end), complete);
        text.remove_prefix(complete ? end + 1 : text.size());
    }
}

[[noreturn]] void failToCapture(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

CapturedStdout::CapturedStdout() {
    std::fflush(stdout);
    file_ = memfd_create("stdout", MFD_CLOEXEC);
    if (file_ < 0) {
        failToCapture("memfd_create");
    }
    original_ = dup(STDOUT_FILENO);
    if (original_ < 0 || dup2(file_, STDOUT_FILENO) < 0) {
        const int cause = errno;
        if (original_ >= 0) {
            close(original_);
        }
        close(file_);
        errno = cause;
        failToCapture("stdout cannot be redirected");
    }
}

CapturedStdout::~CapturedStdout() {
    const AllocationPause pause;
    taken_ = 0;
    const std::string all = takeText();
    dup2(original_, STDOUT_FILENO);
    close(original_);
    close(file_);
    forEachLine(all, [](std::string_view line, bool) {
        if (message(line).empty()) {
            std::printf("%.*s\n", static_cast<int>(line.size()), line.data());
        }
    });
}

std::string CapturedStdout::takeText() {
    const AllocationPause pause;
    std::fflush(stdout);
    // lseek() would move the position at which stdout is being written.
    struct stat status = {};
    if (fstat(file_, &status) != 0) {
        failToCapture("captured output cannot be read");
    }
    std::string text(static_cast<std::size_t>(status.st_size) - taken_, '\0');
    std::size_t have = 0;
    while (have < text.size()) {
        const ssize_t got =
            pread(file_, text.data() + have, text.size() - have, static_cast<off_t>(taken_ + have));
        if (got <= 0) {
            failToCapture("captured output cannot be read");
        }
        have += static_cast<std::size_t>(got);
    }
    taken_ += text.size();
    return text;
}

std::vector<std::string> CapturedStdout::takeLogLines() {
    return logLines(takeText());
}

std::vector<std::string> logLines(std::string_view text) {
    const AllocationPause pause;
    std::vector<std::string> lines;
    forEachLine(text, [&](std::string_view line, bool complete) {
        const std::string_view found = message(line);
        lines.push_back(complete && !found.empty() ? std::string(found) : "malformed: " + std::string(line));
    });
    return lines;
}

std::string logTime(std::string_view line) {
    return message(line).empty() ? std::string() : std::string(line.substr(0, timeLength(line)));
}

} // namespace support
