// StandardInput of standard input, waited for in a way that a signal ends.
#pragma once

#include "interruption.h"

#include <optional>
#include <string>

class StandardInput {
public:
    explicit StandardInput(const Interruption& interruption);

    // The next line without its end; nothing at the end of input and after a signal.
    std::optional<std::string> next();

private:
    bool fill();

    const Interruption& interruption_;
    std::string buffer_;
    bool atEnd_ = false;
};
