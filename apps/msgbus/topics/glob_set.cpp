#include "topics/glob_set.h"

#include <fnmatch.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace topics {

GlobSet::GlobSet(std::vector<std::string> globs) : patterns(std::move(globs)) {
    for (const auto& pattern : patterns) {
        if (pattern.empty()) {
            throw std::invalid_argument("--match: an empty pattern matches no topic");
        }
        const std::size_t last = pattern.find_last_not_of('\\');
        const std::size_t backslashes = pattern.size() - (last == std::string::npos ? 0 : last + 1);
        if (backslashes % 2 != 0) {
            throw std::invalid_argument("--match: '" + pattern + "' ends with a backslash and matches no topic");
        }
    }
}

bool GlobSet::Matches(const std::string& topic) const {
    // Bytes, not characters: the program never leaves the locale "C".
    return std::any_of(patterns.begin(), patterns.end(), [&topic](const std::string& pattern) {
        return ::fnmatch(pattern.c_str(), topic.c_str(), 0) == 0;
    });
}

} // namespace topics
