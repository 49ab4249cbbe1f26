#include "terminal/colour.h"

#include <unistd.h>

#include <cstdlib>

namespace terminal {

bool HasColours(int descriptor) {
    const char* const plain = std::getenv("NO_COLOR");
    const char* const type = std::getenv("TERM");
    return ::isatty(descriptor) == 1 && (plain == nullptr || *plain == '\0') && type != nullptr &&
           std::string_view(type) != "dumb";
}

std::string Coloured(std::string_view text, Colour colour, bool hasColours) {
    return hasColours ? "\x1b[" + std::to_string(static_cast<int>(colour)) + "m" + std::string(text) + "\x1b[0m"
                      : std::string(text);
}

} // namespace terminal
