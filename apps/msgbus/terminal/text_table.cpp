#include "text_table.h"

#include "text_width.h"

#include <algorithm>
#include <utility>

namespace terminal {

Table::Table(std::vector<Column> tableColumns) : columns(std::move(tableColumns)) {}

void Table::Add(std::vector<std::string> cells) {
    rows.push_back(std::move(cells));
}

std::vector<std::string> Table::Lines(std::optional<std::size_t> width) const {
    std::vector<std::size_t> widths;
    std::vector<std::string> headings;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        headings.emplace_back(columns[i].heading);
        widths.push_back(std::max(columns[i].leastWidth, WidthOf(headings.back())));
        for (const auto& row : rows) {
            widths.back() = std::max(widths.back(), WidthOf(row[i]));
        }
    }
    const auto lineOf = [&](const std::vector<std::string>& cells) {
        std::string line;
        for (std::size_t i = 0; i < cells.size(); ++i) {
            const std::string padding(widths[i] - WidthOf(cells[i]), ' ');
            const bool isLast = i + 1 == cells.size();
            if (columns[i].align == Align::Right) {
                line += padding + cells[i];
            } else {
                line += isLast ? cells[i] : cells[i] + padding;
            }
            line += isLast ? "" : "  ";
        }
        return width ? FitTo(line, *width) : line;
    };
    std::vector<std::string> lines{lineOf(headings)};
    for (const auto& row : rows) {
        lines.push_back(lineOf(row));
    }
    return lines;
}

std::string Table::Text(std::string_view indent) const {
    std::string text;
    for (const auto& line : Lines()) {
        text += indent;
        text += line;
        text += '\n';
    }
    return text;
}

} // namespace terminal
