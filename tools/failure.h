// A command that cannot go on: what main() prints on standard error, and the exit status.
#pragma once

#include "exit_status.h"

#include <stdexcept>
#include <string>
#include <string_view>

class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& message, ExitStatus status = ExitStatus::failure,
                     std::string hint = {});

    ExitStatus status() const { return status_; }
    // What to do next, on a line of its own; may be empty.
    const std::string& hint() const { return hint_; }

private:
    ExitStatus status_;
    std::string hint_;
};

// The library's text of a code, in its own words.
std::string libraryText(int code);

// The exit status that tells one of the library's failures.
ExitStatus statusOf(int code);

// One of the library's failures, of the thing or act that is named.
Failure libraryFailure(std::string_view what, int code);

// Passes a result on, unless it is one of the library's failures.
int check(std::string_view what, int result);
