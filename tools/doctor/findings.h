// What the doctor has found, printed as it is found.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

class Findings {
public:
    void ok(std::string_view topic, std::string_view text);
    // Worth knowing, but no obstacle.
    void note(std::string_view topic, std::string_view text);
    // An obstacle, and sentences that tell how to remove it. A sentence that begins with a blank is a command
    // or a line of a file and is not broken.
    void problem(std::string_view topic, std::string_view text, const std::vector<std::string>& remedy);

    std::size_t problems() const { return problems_; }

private:
    std::size_t problems_ = 0;
};
