#pragma once

#include <string_view>

namespace dashboard {

/// A file of the page, in the program itself.
struct PageFile {
    std::string_view path; ///< such as "/page.css"; the page itself has "/"
    std::string_view type; ///< media type
    std::string_view content;
};

/// Returns: the file at `path`, which has no query; null if there is none.
const PageFile* FindPageFile(std::string_view path) noexcept;

} // namespace dashboard
