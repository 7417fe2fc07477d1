// A failure that ends a command: the message that main() prints on standard error, and the exit status.
#pragma once

#include "exit_status.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& message, ExitStatus status = ExitStatus::failure,
                     std::string hint = {});

    ExitStatus status() const { return m_status; }
    // What to do next, printed on a line of its own; may be empty.
    const std::string& hint() const { return m_hint; }

private:
    ExitStatus m_status;
    std::string m_hint;
};

// A failure that does not end a command.
struct Problem {
    ExitStatus status = ExitStatus::failure;
    std::optional<int> code; // of the library
    std::string text;        // without the code's name
};

// "GVUSB: (-1130) timeout [GVUSB_ERR_TIMEOUT]"
std::string messageOf(const Problem& problem);

// The library's text for a code.
std::string libraryText(int code);

// The library's text and the code's name: "GVUSB: (-1130) timeout [GVUSB_ERR_TIMEOUT]".
std::string codeText(int code);

Problem libraryProblem(int code);

// A problem as a failure of `what`, a thing or an operation.
Failure failureOf(std::string_view what, const Problem& problem);

// An error code of the library as a failure of `what`.
Failure libraryFailure(std::string_view what, int code);

// Return the result of a library call, or throw libraryFailure() if it is an error code.
int check(std::string_view what, int result);
