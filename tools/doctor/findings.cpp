#include "doctor/findings.h"

#include "output.h"
#include "table.h"
#include "wrapped_text.h"

#include <algorithm>

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
    if (m_isJson) {
        Json sentences = Json::array();
        for (const std::string& sentence : remedy) {
            sentences.push_back(sentence.substr(std::min(sentence.find_first_not_of(' '), sentence.size())));
        }
        const char* const severity = mark == "PROBLEM" ? "problem" : mark == "note" ? "note" : "ok";
        m_all.push_back({{"severity", severity}, {"topic", topic}, {"text", text}, {"remedy", sentences}});
        return;
    }
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

void Findings::printEnd() const {
    if (m_isJson) {
        output::print(jsonLine({{"findings", m_all}, {"problems", m_problems}}, 2));
    } else if (m_problems == 0) {
        output::print("\nNo problems found.\n");
    } else {
        output::print("\n" + std::to_string(m_problems) +
                      (m_problems == 1 ? " problem found.\n" : " problems found.\n"));
    }
}
