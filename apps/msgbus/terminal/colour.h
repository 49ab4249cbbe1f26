#pragma once

#include <string>
#include <string_view>

namespace terminal {

enum class Colour { Green = 32, Yellow = 33, Red = 31 };

/// Returns: whether what is written to the descriptor may have colours: it is a terminal that has them, and NO_COLOR is
/// not set.
bool HasColours(int descriptor);

/// Returns: `text` in the colour, or as it is.
std::string Coloured(std::string_view text, Colour colour, bool hasColours);

} // namespace terminal
