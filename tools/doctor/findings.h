// What the doctor finds. Each finding is printed at once, or at the end as JSON.
#pragma once

#include "json.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

class Findings {
public:
    explicit Findings(bool json)
        : m_isJson(json) {}

    void ok(std::string_view topic, std::string_view text);
    // Something worth knowing that is not a problem. The remedy may be empty.
    void note(std::string_view topic, std::string_view text, const std::vector<std::string>& remedy = {});
    // A problem and its remedy. A sentence of the remedy that starts with a blank is a command or a line of a
    // file and is not wrapped.
    void problem(std::string_view topic, std::string_view text, const std::vector<std::string>& remedy);

    std::size_t problems() const { return m_problems; }

    // Print how many problems there are, or everything as JSON.
    void printEnd() const;

private:
    void print(std::string_view mark, std::string_view topic, std::string_view text,
               const std::vector<std::string>& remedy);

    bool m_isJson;
    Json m_all = Json::array();
    std::size_t m_problems = 0;
};
