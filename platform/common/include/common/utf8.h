#pragma once

#include <cstddef>
#include <string_view>

namespace utf8 {

struct Step {
    std::size_t length; ///< bytes used, at least 1
    char32_t point;     ///< U+FFFD when `valid` is false
    bool valid;
};

/// Decodes the first character of `text`, which is not empty. Bytes that are not valid are used up in the longest piece
/// that could have begun a character, as the Unicode standard recommends.
constexpr Step Decode(std::string_view text) noexcept {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
        return {1, lead, true};
    }
    const std::size_t wanted = lead >= 0xC2 && lead <= 0xDF   ? 2
                               : (lead & 0xF0) == 0xE0        ? 3
                               : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                              : 0;
    if (wanted == 0) {
        return {1, 0xFFFD, false};
    }
    auto point = static_cast<char32_t>(lead & (0x7F >> wanted));
    for (std::size_t i = 1; i < wanted; ++i) {
        // The second byte's range excludes overlong forms, surrogates and what lies beyond U+10FFFF.
        const unsigned low = i > 1 ? 0x80 : lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
        const unsigned high = i > 1 ? 0xBF : lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
        if (i >= text.size() || byte(i) < low || byte(i) > high) {
            return {i, 0xFFFD, false};
        }
        point = (point << 6) | (byte(i) & 0x3Fu);
    }
    return {wanted, point, true};
}

/// Returns: whether all of `bytes` is UTF-8.
constexpr bool IsValid(std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const Step step = Decode(bytes);
        if (!step.valid) {
            return false;
        }
        bytes.remove_prefix(step.length);
    }
    return true;
}

} // namespace utf8
