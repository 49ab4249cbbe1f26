#pragma once

#include <stdexcept>
#include <string>

namespace msgbus_monitor {

/// A token cannot be read or written: what() is a sentence.
class TokenError final : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Returns: the only line of a file. Throws: TokenError; also when others than its owner may read the file, or the
/// token is shorter than 16 characters or has others than letters, digits and "-._~+/=".
std::string ReadToken(const std::string& path);

/// Writes a file that only its owner may read, in place of one that is there. Throws: TokenError.
void WriteToken(const std::string& path, const std::string& token);

} // namespace msgbus_monitor
