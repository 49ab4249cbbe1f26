#pragma once

#include <termios.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace terminal {

enum class Style { Plain, Heading, Warning, Alarm };

struct StyledLine {
    std::string text; ///< without control characters
    Style style = Style::Plain;
};

struct Size {
    std::size_t columns = 80;
    std::size_t rows = 24;
};

/// Returns: the size of the terminal on stdout, else what COLUMNS and LINES say, else nothing.
std::optional<Size> OutputSize();

/// Pages on stdout that replace each other, and single keys from stdin while this object lives; then the terminal is as
/// before. Without a terminal, or on one without a cursor (TERM=dumb), the pages follow each other. Threads: one at a
/// time.
class Screen final {
public:
    Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;
    ~Screen();

    /// Draws a page in place of the last one. `interrupt`: a descriptor that ends the drawing when it becomes readable.
    /// Returns: false when the reader of stdout is gone. Throws: std::system_error.
    bool Draw(const std::vector<StyledLine>& page, int interrupt);

    /// Returns: a key that was pressed; nothing when there is none, or stdin is no terminal.
    std::optional<char> Key();
    /// Returns: the descriptor that becomes readable with a key; -1 when there are no keys.
    int KeyDescriptor() const noexcept { return hasKeys ? 0 : -1; }

    /// Gives the terminal back, for a program that is about to be suspended, and takes it again.
    void Leave();
    void Enter();

private:
    std::string PageText(const std::vector<StyledLine>& page) const;
    bool Write(std::string_view text, int interrupt) const;

    bool hasCursor = false;  ///< stdout is a terminal that places the cursor
    bool hasColours = false; ///< and NO_COLOR is not set
    bool hasKeys = false;
    bool isEntered = false;
    termios before{}; ///< settings of the terminal on stdin
};

} // namespace terminal
