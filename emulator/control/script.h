// Commands that run at given times after the program has started.
//
// A script has a line "at MS COMMAND" for each, in order of time; blank lines and lines that begin with '#' are
// skipped. "at MS repeat N" or "at MS forever" begins a loop and "at MS end" ends it; the times inside count from the
// beginning of each pass, and that of "end" is the length of a pass. One thread at a time.
#pragma once

#include "model/description.h"
#include "model/transfer.h"

#include <filesystem>
#include <istream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace emulator {

class Script {
public:
    struct Entry {
        std::string command;
        std::string place; // file and line
    };

    // What a script is checked against: the bus at its start.
    struct Bus {
        std::vector<ReaderDescription> readers;
        bool hostIsElsewhere = false;
    };

    Script() = default;

    // Both throw TextError with the script's name and the line. Without a bus, only the names of commands and the
    // numbers of their arguments are checked.
    static Script parse(std::istream& text, const std::string& name, const std::optional<Bus>& bus);
    static Script read(const std::filesystem::path& file, const std::optional<Bus>& bus);

    // When the next command is due, relative to the start.
    std::optional<Milliseconds> next() const;

    // Return the next command and go on, if it is due.
    std::optional<Entry> take(Milliseconds sinceStart);

    // The next command, unless it is in a "forever" loop and has run before.
    std::optional<Entry> missed() const;

private:
    friend class ScriptReader;

    static constexpr std::uint64_t forever = 0;

    struct Step {
        Milliseconds at{0};
        std::string command; // empty: a loop
        unsigned line = 0;

        // Of a loop.
        std::vector<Step> body = {};
        std::uint64_t passes = 0;
        Milliseconds length{0};
    };
    using Steps = std::vector<Step>;

    // Where the script is: in its own steps, or in those of a loop.
    struct Position {
        const Steps* steps = nullptr;
        std::size_t index = 0;
        Milliseconds start{0}; // to which the times are relative
        std::uint64_t passesDone = 0;
    };

    void settle();
    const Step& nextStep() const { return (*m_positions.back().steps)[m_positions.back().index]; }
    std::string place(const Step& step) const;

    std::string m_name;
    std::shared_ptr<const Steps> m_steps; // shared, because positions point into it
    std::vector<Position> m_positions;    // from outer to inner loops; empty at the end
};

} // namespace emulator
