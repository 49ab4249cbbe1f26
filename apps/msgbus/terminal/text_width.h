#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace terminal {

/// Returns: how many columns of a terminal `text` takes. Requires: no control characters in it. Threads: any.
std::size_t WidthOf(std::string_view text);

/// Returns: `text` in at most `width` columns: of a longer one its beginning, with ".." for the rest. Threads: any.
std::string FitTo(std::string_view text, std::size_t width);

} // namespace terminal
