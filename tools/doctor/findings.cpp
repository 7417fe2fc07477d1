#include "doctor/findings.h"

#include "output.h"
#include "table.h"
#include "wrapped_text.h"

namespace {

constexpr std::size_t markWidth = 9;
constexpr std::size_t topicWidth = 16;

} // namespace

void Findings::ok(std::string_view topic, std::string_view text) {
    print("ok", topic, text, {});
}

void Findings::note(std::string_view topic, std::string_view text, const std::vector<std::string>& remedy) {
    print("note", topic, text, remedy);
}

void Findings::problem(std::string_view topic, std::string_view text,
                       const std::vector<std::string>& remedy) {
    ++m_problems;
    print("PROBLEM", topic, text, remedy);
}

void Findings::print(std::string_view mark, std::string_view topic, std::string_view text,
                     const std::vector<std::string>& remedy) {
    std::string lines = wrapped(padded(mark, markWidth) + padded(topic, topicWidth), text);
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
