// Lines of standard input. A signal ends the wait for the next one.
#pragma once

#include "interruption.h"

#include <functional>
#include <optional>
#include <span>
#include <string>

#include <poll.h>

class StandardInput {
public:
    // Waits for one of these descriptors to be ready.
    using Wait = std::function<void(std::span<pollfd>)>;

    StandardInput(const Interruption& interruption, Wait wait);

    // Whether somebody types the lines.
    static bool isTerminal();

    // The next line without its line break. Nothing at the end of the input or after a signal.
    std::optional<std::string> nextLine();

private:
    bool fill();

    const Interruption& m_interruption;
    Wait m_wait;
    std::string m_buffer;
    bool m_atEnd = false;
};
