#pragma once

#include <string>
#include <vector>

namespace topics {

/// Patterns of topics, as fnmatch(3) has them without flags, byte by byte: `*` is any number of bytes, also of '/' and
/// a leading '.'; `?` one byte; `[a-c]` and `[!a-c]` one of some; a backslash takes the next byte as it is. Threads:
/// any.
class GlobSet final {
public:
    /// Throws: std::invalid_argument for an empty pattern, and one that ends with a backslash: they match nothing.
    explicit GlobSet(std::vector<std::string> globs);

    /// Returns: whether one of them matches the whole topic.
    bool Matches(const std::string& topic) const;

private:
    std::vector<std::string> patterns;
};

} // namespace topics
