// The exit statuses that all commands share, and the list of them in the help.
#pragma once

enum class ExitStatus {
    ok = 0,
    failure = 1,
    usage = 2,
    timeOut = 3,
    notFound = 4,
};

// The exit status for an error code of the library.
ExitStatus statusOf(int code);

inline constexpr const char* exitStatusHelp = R"(
EXIT STATUS
  0  success
  1  failure; standard error says why
  2  invalid command line
  3  time-out
  4  the reader is missing or was unplugged
)";
