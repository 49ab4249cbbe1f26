#include "tua/text.h"

#include "common/utf8.h"

namespace tua::text {

namespace {

constexpr char32_t Replacement = 0xFFFD;

void AppendUtf8(std::string& text, char32_t point) {
    if (point < 0x80) {
        text += static_cast<char>(point);
        return;
    }
    const int continuations = point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
    const unsigned leadMark = continuations == 1 ? 0xC0 : continuations == 2 ? 0xE0 : 0xF0;
    text += static_cast<char>(leadMark | (point >> (6 * continuations)));
    for (int i = continuations - 1; i >= 0; --i) {
        text += static_cast<char>(0x80 | ((point >> (6 * i)) & 0x3F));
    }
}

} // namespace

template <>
std::string Cast<std::string>(std::u16string_view from) {
    std::string text;
    text.reserve(from.size());
    for (std::size_t i = 0; i < from.size(); ++i) {
        char32_t point = from[i];
        const bool isSurrogate = point >= 0xD800 && point <= 0xDFFF;
        if (isSurrogate) {
            const bool isPair =
                point <= 0xDBFF && i + 1 < from.size() && from[i + 1] >= 0xDC00 && from[i + 1] <= 0xDFFF;
            point = isPair ? 0x10000 + ((point - 0xD800) << 10) + (from[++i] - 0xDC00u) : Replacement;
        }
        AppendUtf8(text, point);
    }
    return text;
}

template <>
std::u16string Cast<std::u16string>(std::string_view from) {
    std::u16string text;
    text.reserve(from.size());
    while (!from.empty()) {
        const auto step = utf8::Decode(from);
        from.remove_prefix(step.length);
        if (step.point >= 0x10000) {
            text += static_cast<char16_t>(0xD800 + ((step.point - 0x10000) >> 10));
            text += static_cast<char16_t>(0xDC00 + ((step.point - 0x10000) & 0x3FF));
        } else {
            text += static_cast<char16_t>(step.point);
        }
    }
    return text;
}

} // namespace tua::text
