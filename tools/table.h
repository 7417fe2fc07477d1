// Text in aligned columns.
#pragma once

#include <string>
#include <string_view>
#include <vector>

class Table {
public:
    using Row = std::vector<std::string>;

    void add(Row row);

    // One line for each row, columns two blanks apart, without blanks at the end.
    std::string text() const;

private:
    std::vector<Row> rows_;
};

// A reader's text without what would move the cursor of a terminal; shown is '?' in its place.
std::string printable(std::string_view text);

// Fills up to a width with blanks.
std::string padded(std::string_view text, std::size_t width);
