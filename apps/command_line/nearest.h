#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace command_line {

/// Returns: the candidate that `word` was probably meant to be: the one that the fewest changed, added, missing or
/// swapped characters make of it, if these are at most a third of it. Of several the first.
std::optional<std::string> Nearest(std::string_view word, const std::vector<std::string>& candidates);

} // namespace command_line
