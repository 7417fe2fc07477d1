// Text in aligned columns.
#pragma once

#include <string>
#include <string_view>
#include <vector>

class Table {
public:
    using Row = std::vector<std::string>;

    void add(Row row);

    // One line for each row, with two blanks between columns and none at the end.
    std::string text() const;

private:
    std::vector<Row> m_rows;
};

// The text, padded with blanks to a width.
std::string padded(std::string_view text, std::size_t width);
