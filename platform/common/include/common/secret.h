#pragma once

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>

/// Words that let in who has them.
namespace common {

/// Returns: 256 random bits as hexadecimal digits. Throws: std::system_error.
inline std::string MakeSecret() {
    std::array<unsigned char, 32> bytes{};
    // Up to 256 bytes come whole.
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::system_error(errno, std::generic_category(), "there are no random numbers");
    }
    constexpr std::string_view digits = "0123456789abcdef";
    std::string secret;
    for (const unsigned char byte : bytes) {
        secret += digits[byte >> 4U];
        secret += digits[byte & 0xFU];
    }
    return secret;
}

/// Returns: whether `text` is `secret`. Takes the same time wherever they differ.
inline bool IsSecret(std::string_view secret, std::string_view text) noexcept {
    if (secret.size() != text.size()) {
        return false;
    }
    unsigned difference = 0;
    for (std::size_t i = 0; i < secret.size(); ++i) {
        difference |= static_cast<unsigned char>(secret[i]) ^ static_cast<unsigned char>(text[i]);
    }
    return difference == 0;
}

} // namespace common
