// Commands that run at given times after the program has started.
//
// A script has a line "at MS COMMAND" for each, in order of time; blank lines and lines that begin with '#'
// are skipped. One thread at a time.
#pragma once

#include "model/transfer.h"

#include <deque>
#include <filesystem>
#include <istream>
#include <optional>
#include <string>

namespace emulator {

class Script {
public:
    struct Entry {
        Milliseconds at{0};
        std::string command;
        unsigned line = 0;
    };

    Script() = default;

    // Both throw TextError, in which `name` stands for the script.
    static Script parse(std::istream& text, const std::string& name);
    static Script read(const std::filesystem::path& file);

    // When the next command is due, relative to the start.
    std::optional<Milliseconds> next() const;

    // Remove and return the next command if it is due.
    std::optional<Entry> take(Milliseconds sinceStart);

private:
    std::deque<Entry> m_entries;
};

} // namespace emulator
