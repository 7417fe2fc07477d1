#include "control/script.h"

#include "control/commands.h"

#include <fstream>

namespace emulator {

namespace {

constexpr std::uint64_t latest = 24ULL * 3600 * 1000;

Script::Entry parseLine(std::string_view text, unsigned line) {
    if (takeWord(text) != "at") {
        throw TextError("expected: at MS COMMAND");
    }
    Script::Entry entry;
    entry.at = Milliseconds(number("time", takeWord(text), 0, latest));
    entry.command = text;
    entry.line = line;
    checkCommand(text);
    if (text.starts_with("wait")) {
        throw TextError("wait cannot be used in a script");
    }
    return entry;
}

} // namespace

Script Script::parse(std::istream& text, const std::string& name) {
    Script script;
    std::string line;
    for (unsigned number = 1; std::getline(text, line); ++number) {
        const std::string_view content = trimmed(line);
        if (content.empty() || content.front() == '#') {
            continue;
        }
        try {
            script.m_entries.push_back(parseLine(content, number));
            const std::size_t count = script.m_entries.size();
            if (count > 1 && script.m_entries[count - 1].at < script.m_entries[count - 2].at) {
                throw TextError("time is earlier than that of the line before");
            }
        } catch (const TextError& error) {
            throw TextError(name + ":" + std::to_string(number) + ": " + error.what());
        }
    }
    if (text.bad()) {
        throw TextError("cannot read " + name);
    }
    return script;
}

Script Script::read(const std::filesystem::path& file) {
    std::ifstream stream(file);
    if (!stream) {
        throw TextError("cannot read " + file.string());
    }
    return parse(stream, file.string());
}

std::optional<Milliseconds> Script::next() const {
    return m_entries.empty() ? std::optional<Milliseconds>{} : m_entries.front().at;
}

std::optional<Script::Entry> Script::take(Milliseconds sinceStart) {
    if (m_entries.empty() || m_entries.front().at > sinceStart) {
        return std::nullopt;
    }
    Entry entry = std::move(m_entries.front());
    m_entries.pop_front();
    return entry;
}

} // namespace emulator
