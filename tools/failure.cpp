#include "failure.h"

#include "explanations.h"

#include <utility>

#include <gvusb.h>

Failure::Failure(const std::string& message, ExitStatus status, std::string hint)
    : std::runtime_error(message)
    , m_status(status)
    , m_hint(std::move(hint)) {
}

std::string libraryText(int code) {
    char text[GVUSB_TEXT_SIZE] = "";
    GVUSB_GetErrorText(code, text);
    return text;
}

std::string messageOf(const Problem& problem) {
    const Explanation* const found = problem.code ? findExplanation(*problem.code) : nullptr;
    return problem.text + (found == nullptr ? std::string{} : " [" + std::string(found->name) + "]");
}

Problem libraryProblem(int code) {
    return {.status = statusOf(code), .code = code, .text = libraryText(code)};
}

std::string codeText(int code) {
    return messageOf(libraryProblem(code));
}

Failure failureOf(std::string_view what, const Problem& problem) {
    return Failure(std::string(what) + ": " + messageOf(problem), problem.status,
                   problem.code
                       ? "Run 'gvusb explain " + std::to_string(*problem.code) + "' for causes and remedies."
                       : std::string{});
}

Failure libraryFailure(std::string_view what, int code) {
    return failureOf(what, libraryProblem(code));
}

int check(std::string_view what, int result) {
    if (result < 0) {
        throw libraryFailure(what, result);
    }
    return result;
}
