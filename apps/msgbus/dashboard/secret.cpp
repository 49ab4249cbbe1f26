#include "dashboard/secret.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace dashboard {

std::string MakeSecret() {
    std::array<unsigned char, 32> bytes{};
    // Up to 256 bytes come whole.
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::system_error(errno, std::generic_category(), "cannot get random bytes");
    }
    constexpr std::string_view digits = "0123456789abcdef";
    std::string secret;
    for (const unsigned char byte : bytes) {
        secret += digits[byte >> 4];
        secret += digits[byte & 0xF];
    }
    return secret;
}

bool IsSecret(std::string_view secret, std::string_view text) noexcept {
    if (secret.size() != text.size()) {
        return false;
    }
    int difference = 0;
    for (std::size_t index = 0; index < secret.size(); ++index) {
        difference |= secret[index] ^ text[index];
    }
    return difference == 0;
}

} // namespace dashboard
