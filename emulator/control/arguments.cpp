#include "control/arguments.h"

#include <algorithm>
#include <numeric>

namespace emulator {

void expectEnd(std::string_view arguments) {
    if (!arguments.empty()) {
        throw TextError("unexpected argument '" + std::string(arguments) + "'");
    }
}

std::size_t takeReader(const Roster& roster, std::string_view& arguments) {
    const std::string_view word = takeWord(arguments);
    if (roster.size() == 0) {
        throw TextError("no reader '" + std::string(word) + "': the bus has none");
    }
    return static_cast<std::size_t>(number("reader", word, 1, roster.size()));
}

std::vector<std::size_t> takeReaders(const Roster& roster, std::string_view& arguments) {
    std::string_view ahead = arguments;
    if (takeWord(ahead) != "all") {
        return {takeReader(roster, arguments)};
    }
    arguments = ahead;
    std::vector<std::size_t> all(roster.size());
    std::iota(all.begin(), all.end(), std::size_t{1});
    return all;
}

std::vector<ReaderPipes> takePipes(const Roster& roster, std::string_view& arguments) {
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    const std::string_view name = takeWord(arguments);
    std::vector<ReaderPipes> pipes;
    pipes.reserve(readers.size());
    for (const std::size_t reader : readers) {
        pipes.push_back({.reader = reader, .pipes = pipesNamed(roster.description(reader), name)});
    }
    if (readers.empty()) {
        static const ReaderDescription any;
        pipesNamed(any, name);
    }
    return pipes;
}

bool takeSwitch(std::string_view& arguments) {
    const std::string_view word = takeWord(arguments);
    if (word != "on" && word != "off") {
        throw TextError("expected on or off, not '" + std::string(word) + "'");
    }
    expectEnd(arguments);
    return word == "on";
}

std::uint8_t takeStringIndex(std::string_view& arguments) {
    return static_cast<std::uint8_t>(number("string index", takeWord(arguments), 0, 255));
}

Bytes takeHexWords(std::string_view what, std::string_view& arguments) {
    const auto isHex = [](std::string_view word) {
        return !word.empty() && word.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
    };
    Bytes bytes;
    std::string_view ahead = arguments;
    for (std::string_view word = takeWord(ahead); isHex(word); word = takeWord(ahead)) {
        const Bytes taken = hexBytes(what, word);
        bytes.insert(bytes.end(), taken.begin(), taken.end());
        arguments = ahead;
    }
    return bytes;
}

} // namespace emulator
