#include "wrapped_text.h"

#include <algorithm>

namespace {

// Labels and indentations leave this much for the text, even if the lines are then too long.
constexpr std::size_t narrowestText = 32;

// Where the text in the last column of a line starts: behind the last two blanks in a row.
std::size_t lastColumn(std::string_view line) {
    const std::size_t blanks = line.rfind("  ");
    return blanks == std::string_view::npos ? 0 : blanks + 2;
}

bool continuesParagraph(std::string_view text) {
    return !text.empty() && text.front() != '\n' && text.front() != ' ' && !text.starts_with("Usage:");
}

} // namespace

std::string wrapped(std::string_view label, std::string_view text, std::size_t width) {
    width = std::max(width, narrowestText);
    std::string result;
    std::string line(label);
    // In a narrow terminal, a long label leaves too little room beside it.
    const std::size_t indentation = std::min(label.size(), width - narrowestText);
    bool isFresh = true;
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(text.size(), word.size() + 1));
        const bool isTooLong = line.size() + (isFresh ? 0 : 1) + word.size() > width;
        if (isTooLong && (!isFresh || line.size() > indentation)) {
            line.erase(line.find_last_not_of(' ') + 1);
            result += line + '\n';
            line.assign(indentation, ' ');
            isFresh = true;
        }
        line += (isFresh ? "" : " ") + std::string(word);
        isFresh = false;
    }
    return result + line + '\n';
}

std::string rewrapped(std::string_view text, std::size_t width) {
    const auto takeLine = [&text] {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        return line;
    };
    std::string result;
    while (!text.empty()) {
        const std::string_view line = takeLine();
        if (line.size() <= width) {
            result.append(line).append("\n");
            continue;
        }
        const std::size_t column = lastColumn(line);
        std::string sentences(line.substr(column));
        while (column == 0 && continuesParagraph(text)) {
            sentences.append(" ").append(takeLine());
        }
        result += wrapped(line.substr(0, column), sentences, width);
    }
    return result;
}
