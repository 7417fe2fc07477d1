// Lines of standard input. A signal ends the wait for the next one.
#pragma once

#include "interruption.h"

#include <optional>
#include <string>

class StandardInput {
public:
    explicit StandardInput(const Interruption& interruption);

    // Whether somebody types the lines.
    static bool isTerminal();

    // The next line without its line break. Nothing at the end of the input or after a signal.
    std::optional<std::string> nextLine();

private:
    bool fill();

    const Interruption& m_interruption;
    std::string m_buffer;
    bool m_atEnd = false;
};
