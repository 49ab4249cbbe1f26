#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace look {

/// Returns: a value, and in parentheses what it means by its topic's description, if that is known: "215 (21.5 V)".
std::string ValueText(std::int64_t value, std::string_view description);

} // namespace look
