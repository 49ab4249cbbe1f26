#include "nearest.h"

#include <algorithm>
#include <cstddef>

namespace command_line {

namespace {

/// The optimal string alignment distance.
std::size_t Distance(std::string_view from, std::string_view to) {
    std::vector<std::size_t> before(to.size() + 1), last(to.size() + 1), row(to.size() + 1);
    for (std::size_t column = 0; column <= to.size(); ++column) {
        last[column] = column;
    }
    for (std::size_t line = 1; line <= from.size(); ++line) {
        row[0] = line;
        for (std::size_t column = 1; column <= to.size(); ++column) {
            const std::size_t change = from[line - 1] == to[column - 1] ? 0 : 1;
            row[column] = std::min({last[column] + 1, row[column - 1] + 1, last[column - 1] + change});
            if (line > 1 && column > 1 && from[line - 1] == to[column - 2] && from[line - 2] == to[column - 1]) {
                row[column] = std::min(row[column], before[column - 2] + 1);
            }
        }
        before.swap(last);
        last.swap(row);
    }
    return last[to.size()];
}

} // namespace

std::optional<std::string> Nearest(std::string_view word, const std::vector<std::string>& candidates) {
    constexpr std::size_t longest = 64; // no name here is longer, and the table grows with the product
    if (word.size() > longest) {
        return std::nullopt;
    }
    std::optional<std::string> nearest;
    std::size_t least = std::max<std::size_t>(1, word.size() / 3) + 1;
    for (const auto& candidate : candidates) {
        if (const std::size_t distance = Distance(word, candidate); distance < least) {
            least = distance;
            nearest = candidate;
        }
    }
    return nearest;
}

} // namespace command_line
