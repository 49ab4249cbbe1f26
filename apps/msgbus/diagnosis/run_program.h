#pragma once

#include <optional>
#include <string>
#include <vector>

namespace diagnosis {

/// Runs a program, found along PATH unless the first word has a slash, without input, and with its errors thrown away.
/// Returns: what it printed on stdout; nothing when it cannot be run or fails. Blocks: until it ends.
std::optional<std::string> OutputOf(std::vector<std::string> words);

} // namespace diagnosis
