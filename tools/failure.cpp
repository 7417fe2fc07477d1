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

std::string codeText(int code) {
    const Explanation* const found = findExplanation(code);
    return libraryText(code) + (found == nullptr ? std::string{} : " [" + std::string(found->name) + "]");
}

Failure libraryFailure(std::string_view what, int code) {
    return Failure(std::string(what) + ": " + codeText(code), statusOf(code),
                   "Run 'gvusb explain " + std::to_string(code) + "' for causes and remedies.");
}

int check(std::string_view what, int result) {
    if (result < 0) {
        throw libraryFailure(what, result);
    }
    return result;
}
