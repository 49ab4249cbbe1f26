#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace terminal {

/// Lines of aligned columns with two spaces between them, below their headings. The last column is not padded, so
/// that a long name there moves no other.
class Table final {
public:
    enum class Align { Left, Right };
    struct Column {
        std::string_view heading;
        Align align = Align::Right;
        std::size_t leastWidth = 0;
    };

    explicit Table(std::vector<Column> tableColumns);

    /// Adds a line. Requires: one cell for each column, without control characters.
    void Add(std::vector<std::string> cells);
    std::size_t RowCount() const noexcept { return rows.size(); }

    /// Returns: the headings and the lines, without line feeds, each at most `width` columns wide.
    std::vector<std::string> Lines(std::optional<std::size_t> width = std::nullopt) const;
    /// Returns: the same as text, each line behind `indent`.
    std::string Text(std::string_view indent = {}) const;

private:
    std::vector<Column> columns;
    std::vector<std::vector<std::string>> rows;
};

} // namespace terminal
