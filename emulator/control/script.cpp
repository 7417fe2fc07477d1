#include "control/script.h"

#include "control/commands.h"
#include "control/expected_readers.h"

#include <fstream>
#include <utility>

namespace emulator {

namespace {

constexpr Milliseconds latest{24LL * 3600 * 1000};
constexpr std::uint64_t mostPasses = 1'000'000'000;
constexpr std::size_t deepestLoop = 16;

} // namespace

// Reads the lines of one script.
class ScriptReader {
public:
    explicit ScriptReader(const std::optional<Script::Bus>& bus) {
        if (bus) {
            m_readers.emplace(bus->readers, bus->hostIsElsewhere);
        }
    }

    void readLine(std::string_view text, unsigned line) {
        if (takeWord(text) != "at") {
            throw TextError("expected: at MS COMMAND");
        }
        Script::Step step;
        step.at = Milliseconds(number("time", takeWord(text), 0, static_cast<std::uint64_t>(latest.count())));
        step.line = line;
        if (m_endless) {
            throw TextError("never runs, because the loop before it runs forever");
        }
        if (step.at < earliest()) {
            throw TextError(m_loops.back().steps.empty() || m_loops.back().steps.back().body.empty()
                                ? "time is earlier than that of the line before"
                                : "time is earlier than the end of the loop before, which is at " +
                                      std::to_string(earliest().count()));
        }
        std::string_view ahead = text;
        const std::string_view word = takeWord(ahead);
        if (word == "repeat") {
            const std::uint64_t passes = number("number of passes", takeWord(ahead), 1, mostPasses);
            begin(std::move(step), passes, ahead);
        } else if (word == "forever") {
            if (m_loops.size() > 1) {
                throw TextError("forever cannot be used inside a loop");
            }
            begin(std::move(step), Script::forever, ahead);
        } else if (word == "end") {
            end(step.at, ahead);
        } else {
            check(text);
            step.command = text;
            m_loops.back().steps.push_back(std::move(step));
        }
    }

    Script::Steps finish() {
        if (m_loops.size() > 1) {
            throw TextError("loop without end");
        }
        return std::move(m_loops.back().steps);
    }

    // The line of the innermost loop that has begun.
    unsigned openLoop() const { return m_loops.back().loop.line; }

private:
    struct Loop {
        Script::Step loop;
        Script::Steps steps; // so far
        std::size_t readersBefore = 0;
    };

    Milliseconds earliest() const {
        if (m_loops.back().steps.empty()) {
            return Milliseconds(0);
        }
        const Script::Step& before = m_loops.back().steps.back();
        return before.at + before.length * static_cast<Milliseconds::rep>(before.passes);
    }

    void check(std::string_view command) {
        if (m_readers) {
            m_readers->add(checkCommand(*m_readers, command).added);
        } else {
            checkCommandName(command);
        }
        if (takeWord(command) == "wait") {
            throw TextError("wait cannot be used in a script");
        }
    }

    void begin(Script::Step step, std::uint64_t passes, std::string_view rest) {
        expectNothing(rest);
        if (m_loops.size() > deepestLoop) {
            throw TextError("more than " + std::to_string(deepestLoop) + " loops inside each other");
        }
        step.passes = passes;
        m_loops.push_back({.loop = std::move(step),
                           .steps = {},
                           .readersBefore = m_readers ? m_readers->size() : std::size_t{0}});
    }

    void end(Milliseconds length, std::string_view rest) {
        expectNothing(rest);
        if (m_loops.size() == 1) {
            throw TextError("end without a loop");
        }
        Loop& ended = m_loops.back();
        if (ended.steps.empty()) {
            throw TextError("loop without a command");
        }
        if (length == Milliseconds(0)) {
            throw TextError("a pass of a loop must take at least 1 ms");
        }
        Script::Step loop = std::move(ended.loop);
        loop.length = length;
        loop.body = std::move(ended.steps);
        const auto passes = static_cast<Milliseconds::rep>(loop.passes);
        if (passes > (latest - loop.at) / length) {
            throw TextError("the loop ends later than after 24 hours; use forever");
        }
        if (loop.passes == Script::forever) {
            m_endless = true;
        } else if (m_readers) {
            m_readers->repeatAllBut(ended.readersBefore, loop.passes - 1);
        }
        m_loops.pop_back();
        m_loops.back().steps.push_back(std::move(loop));
    }

    static void expectNothing(std::string_view rest) {
        if (!rest.empty()) {
            throw TextError("unexpected argument '" + std::string(rest) + "'");
        }
    }

    std::optional<ExpectedReaders> m_readers;
    std::vector<Loop> m_loops = std::vector<Loop>(1); // the first is the script itself
    bool m_endless = false;
};

Script Script::parse(std::istream& text, const std::string& name, const std::optional<Bus>& bus) {
    const auto placed = [&](unsigned number, const TextError& error) {
        return TextError(name + ":" + std::to_string(number) + ": " + error.what());
    };
    ScriptReader reader(bus);
    std::string line;
    for (unsigned number = 1; std::getline(text, line); ++number) {
        const std::string_view content = trimmed(number == 1 ? withoutByteOrderMark(line) : line);
        if (content.empty() || content.front() == '#') {
            continue;
        }
        try {
            reader.readLine(content, number);
        } catch (const TextError& error) {
            throw placed(number, error);
        }
    }
    if (text.bad()) {
        throw TextError("cannot read " + name);
    }
    Script script;
    script.m_name = name;
    try {
        script.m_steps = std::make_shared<const Steps>(reader.finish());
    } catch (const TextError& error) {
        throw placed(reader.openLoop(), error);
    }
    script.m_positions.push_back({.steps = script.m_steps.get()});
    script.settle();
    return script;
}

Script Script::read(const std::filesystem::path& file, const std::optional<Bus>& bus) {
    std::ifstream stream(file);
    if (!stream) {
        throw TextError("cannot read " + file.string());
    }
    return parse(stream, file.string(), bus);
}

std::optional<Milliseconds> Script::next() const {
    if (m_positions.empty()) {
        return std::nullopt;
    }
    return m_positions.back().start + nextStep().at;
}

std::optional<Script::Entry> Script::take(Milliseconds sinceStart) {
    const std::optional<Milliseconds> due = next();
    if (!due || *due > sinceStart) {
        return std::nullopt;
    }
    Entry entry{.command = nextStep().command, .place = place(nextStep())};
    ++m_positions.back().index;
    settle();
    return entry;
}

std::optional<Script::Entry> Script::missed() const {
    if (m_positions.empty()) {
        return std::nullopt;
    }
    if (m_positions.size() > 1 && m_positions[1].passesDone > 0) {
        const Position& outer = m_positions.front();
        if ((*outer.steps)[outer.index].passes == forever) {
            return std::nullopt;
        }
    }
    return Entry{.command = nextStep().command, .place = place(nextStep())};
}

// Go on to the next command: enter loops, repeat them and leave them. Every loop contains a command.
void Script::settle() {
    while (!m_positions.empty()) {
        Position& here = m_positions.back();
        if (here.index < here.steps->size()) {
            const Step& step = (*here.steps)[here.index];
            if (!step.command.empty()) {
                return;
            }
            const Milliseconds start = here.start + step.at;
            m_positions.push_back({.steps = &step.body, .index = 0, .start = start, .passesDone = 0});
            continue;
        }
        if (m_positions.size() == 1) {
            m_positions.clear();
            return;
        }
        const Position& outer = m_positions[m_positions.size() - 2];
        const Step& loop = (*outer.steps)[outer.index];
        ++here.passesDone;
        if (loop.passes == forever || here.passesDone < loop.passes) {
            here.index = 0;
            here.start += loop.length;
        } else {
            m_positions.pop_back();
            ++m_positions.back().index;
        }
    }
}

std::string Script::place(const Step& step) const {
    return m_name + ":" + std::to_string(step.line);
}

} // namespace emulator
