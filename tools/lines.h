// Lines of standard input, waited for in a way that a signal ends.
#pragma once

#include "interruption.h"

#include <optional>
#include <string>

class Lines {
public:
    explicit Lines(const Interruption& interruption);

    // The next line without its end; nothing at the end of input and after a signal.
    std::optional<std::string> next();

private:
    bool fill();

    const Interruption& interruption_;
    std::string buffer_;
    bool atEnd_ = false;
};
