#include "text_width.h"

#include "common/utf8.h"

#include <locale.h>

#include <clocale>
#include <cwchar>

namespace terminal {

namespace {

/// The widths of characters, whatever the locale of the program is.
std::size_t ColumnsOf(char32_t point) {
    thread_local const bool hasWidths = [] {
        const locale_t widths = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        return widths != nullptr && ::uselocale(widths) != nullptr; // kept for the life of the thread
    }();
    const int columns = hasWidths ? ::wcwidth(static_cast<wchar_t>(point)) : 1;
    return columns < 0 ? 1 : static_cast<std::size_t>(columns);
}

} // namespace

std::size_t WidthOf(std::string_view text) {
    std::size_t width = 0;
    while (!text.empty()) {
        const utf8::Step step = utf8::Decode(text);
        width += ColumnsOf(step.point);
        text.remove_prefix(step.length);
    }
    return width;
}

std::string FitTo(std::string_view text, std::size_t width) {
    constexpr std::string_view more = "..";
    std::size_t used = 0;
    std::size_t end = 0; // of what fits beside `more`
    for (std::size_t at = 0; at < text.size();) {
        const utf8::Step step = utf8::Decode(text.substr(at));
        used += ColumnsOf(step.point);
        if (used > width) {
            return width < more.size() ? std::string(width, '.') : std::string(text.substr(0, end)) + std::string(more);
        }
        at += step.length;
        if (used + more.size() <= width) {
            end = at;
        }
    }
    return std::string(text);
}

} // namespace terminal
