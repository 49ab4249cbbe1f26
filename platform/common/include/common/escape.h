#pragma once

#include "common/utf8.h"

#include <cstddef>
#include <string>
#include <string_view>

/// How bytes of unknown origin are shown in a log line or on a terminal: as one line that cannot control the terminal,
/// from which the bytes can be had back.
namespace common {

/// Returns: whether a terminal, or a program that reads lines, could act on `point` in place of showing it: control
/// characters (C0, DEL, C1), separators of lines and paragraphs, changes of the writing direction, and what is not seen
/// at all, with which different names would look the same. None of them is above U+FFFF.
constexpr bool IsControl(char32_t point) noexcept {
    return point < 0x20 || (point >= 0x7F && point < 0xA0) || point == 0xAD || point == 0x61C || point == 0x180E ||
           (point >= 0x200B && point <= 0x200F) || (point >= 0x2028 && point <= 0x202E) ||
           (point >= 0x2060 && point <= 0x206F) || point == 0xFEFF || (point >= 0xFFF9 && point <= 0xFFFB);
}

/// Appends `bytes` to `line`. A backslash becomes "\\", a line feed "\n", a tab "\t"; every byte of another control
/// character, and every byte that is not UTF-8, becomes "\x" and two hexadecimal digits. `printf %b` of bash reverses
/// it.
inline void AppendEscaped(std::string& line, std::string_view bytes) {
    constexpr char digits[] = "0123456789abcdef";
    while (!bytes.empty()) {
        const utf8::Step step = utf8::Decode(bytes);
        if (step.point == U'\\') {
            line += "\\\\";
        } else if (step.point == U'\n') {
            line += "\\n";
        } else if (step.point == U'\t') {
            line += "\\t";
        } else if (!step.valid || IsControl(step.point)) {
            for (const char c : bytes.substr(0, step.length)) {
                const auto byte = static_cast<unsigned char>(c);
                line += "\\x";
                line += digits[byte >> 4];
                line += digits[byte & 0xF];
            }
        } else {
            line += bytes.substr(0, step.length);
        }
        bytes.remove_prefix(step.length);
    }
}

/// Returns: `bytes` as AppendEscaped appends them.
inline std::string Escaped(std::string_view bytes) {
    std::string text;
    AppendEscaped(text, bytes);
    return text;
}

} // namespace common
