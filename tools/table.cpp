#include "table.h"

#include <algorithm>
#include <utility>

std::string padded(std::string_view text, std::size_t width) {
    std::string result(text);
    result.resize(std::max(result.size(), width), ' ');
    return result;
}

void Table::add(Row row) {
    m_rows.push_back(std::move(row));
}

std::string Table::text() const {
    std::vector<std::size_t> widths;
    for (const Row& row : m_rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::string text;
    for (const Row& row : m_rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += (i == 0 ? "" : "  ") + padded(row[i], widths[i]);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + '\n';
    }
    return text;
}
