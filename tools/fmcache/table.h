// A table with aligned columns. The last one is not padded: it is for names, whose display width is
// unknown.
#pragma once

#include <string>
#include <vector>

class Table {
public:
    enum class Align { Left, Right };
    struct Column {
        std::string head;
        Align align = Align::Left;
    };

    explicit Table(std::vector<Column> columns) : m_columns(std::move(columns)) {}
    /// One text for each column; all but the last are ASCII.
    void Add(std::vector<std::string> row) { m_rows.push_back(std::move(row)); }
    /// The lines, the header first.
    std::string Text() const;

private:
    void AppendLine(std::string& text, const std::vector<size_t>& widths,
                    const std::vector<std::string>& row) const;

    const std::vector<Column> m_columns;
    std::vector<std::vector<std::string>> m_rows;
};
