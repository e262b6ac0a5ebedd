#include "table.h"

#include <algorithm>

std::string Table::Text() const {
    std::vector<std::string> heads;
    std::vector<size_t> widths;
    for (const Column& column : m_columns) {
        heads.push_back(column.head);
        widths.push_back(column.head.size());
    }
    for (const auto& row : m_rows) {
        for (size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    AppendLine(text, widths, heads);
    for (const auto& row : m_rows)
        AppendLine(text, widths, row);
    return text;
}

void Table::AppendLine(std::string& text, const std::vector<size_t>& widths,
                       const std::vector<std::string>& row) const {
    for (size_t i = 0; i < row.size(); ++i) {
        const bool last = i + 1 == row.size();
        const std::string blanks(widths[i] - row[i].size(), ' ');
        if (m_columns[i].align == Align::Right)
            text += blanks + row[i];
        else
            text += row[i] + (last ? "" : blanks);
        text += last ? "\n" : "  ";
    }
}
