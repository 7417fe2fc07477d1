#include "doctor/findings.h"

#include "output.h"
#include "table.h"
#include "wrapped_text.h"

namespace {

constexpr std::size_t markWidth = 9;
constexpr std::size_t topicWidth = 16;

std::string line(std::string_view mark, std::string_view topic, std::string_view text) {
    return wrapped(padded(mark, markWidth) + padded(topic, topicWidth), text);
}

} // namespace

void Findings::ok(std::string_view topic, std::string_view text) {
    output::print(line("ok", topic, text));
}

void Findings::note(std::string_view topic, std::string_view text) {
    output::print(line("note", topic, text));
}

void Findings::problem(std::string_view topic, std::string_view text,
                       const std::vector<std::string>& remedy) {
    ++m_problems;
    std::string lines = line("PROBLEM", topic, text);
    const std::string indent(markWidth, ' ');
    for (const std::string& sentence : remedy) {
        if (sentence.starts_with(' ')) {
            lines.append(indent).append("  ").append(sentence).append("\n");
        } else {
            lines += wrapped(indent + "> ", sentence);
        }
    }
    output::print(lines);
}
