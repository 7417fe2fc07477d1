// What the exit status of every command means; the help text says the same.
#pragma once

enum class ExitStatus {
    ok = 0,
    failure = 1,
    usage = 2,
    timeOut = 3,
    notFound = 4,
};

inline constexpr const char* exitStatusHelp = "EXIT STATUS\n"
                                              "  0  success\n"
                                              "  1  failure; standard error says why\n"
                                              "  2  a mistake on the command line\n"
                                              "  3  time-out\n"
                                              "  4  the reader is not there, or not any more\n";
