#pragma once

#include <string>
#include <string_view>

namespace dashboard {

/// Returns: 256 random bits as hexadecimal digits. Throws: std::system_error.
std::string MakeSecret();

/// Returns: whether `text` is `secret`. Takes the same time wherever they differ.
bool IsSecret(std::string_view secret, std::string_view text) noexcept;

} // namespace dashboard
