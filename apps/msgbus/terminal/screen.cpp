#include "screen.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <system_error>

namespace terminal {

namespace {

constexpr std::string_view EnterCodes = "\x1b[?1049h\x1b[?25l"; // the alternate screen, without a cursor
constexpr std::string_view LeaveCodes = "\x1b[?25h\x1b[?1049l";
constexpr std::string_view Home = "\x1b[H";
constexpr std::string_view ClearLine = "\x1b[K"; // in front of a line: behind one of full width it would clear its end
constexpr std::string_view ClearRest = "\x1b[J";
constexpr std::string_view PlainCode = "\x1b[m";

std::string_view CodeOf(Style style) {
    switch (style) {
    case Style::Heading:
        return "\x1b[7m";
    case Style::Warning:
        return "\x1b[33m";
    case Style::Alarm:
        return "\x1b[1;31m";
    case Style::Plain:
        break;
    }
    return "";
}

std::string_view Variable(const char* name) {
    const char* const text = std::getenv(name);
    return text == nullptr ? std::string_view() : text;
}

std::size_t NumberIn(std::string_view text) {
    std::size_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

} // namespace

std::optional<Size> OutputSize() {
    winsize window{};
    const bool isTerminal = ::isatty(STDOUT_FILENO) == 1;
    if (isTerminal && ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col != 0 && window.ws_row != 0) {
        return Size{window.ws_col, window.ws_row};
    }
    const Size told{NumberIn(Variable("COLUMNS")), NumberIn(Variable("LINES"))};
    if (told.columns != 0 && told.rows != 0) {
        return told;
    }
    return isTerminal ? std::optional(Size{}) : std::nullopt;
}

Screen::Screen() {
    hasCursor = ::isatty(STDOUT_FILENO) == 1 && !Variable("TERM").empty() && Variable("TERM") != "dumb";
    hasColours = hasCursor && Variable("NO_COLOR").empty();
    hasKeys = ::isatty(STDIN_FILENO) == 1 && ::tcgetattr(STDIN_FILENO, &before) == 0;
    Enter();
}

Screen::~Screen() {
    Leave();
}

void Screen::Enter() {
    if (isEntered) {
        return;
    }
    isEntered = true;
    if (hasKeys) {
        termios raw = before;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO); // signals stay: Ctrl-C and Ctrl-Z do what they do
        raw.c_cc[VMIN] = 0;
        raw.c_cc[VTIME] = 0;
        ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
    if (hasCursor) {
        Write(EnterCodes, -1);
    }
}

void Screen::Leave() {
    if (!isEntered) {
        return;
    }
    isEntered = false;
    if (hasKeys) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &before);
        ::tcflow(STDIN_FILENO, TCOON); // else a terminal that was held with Ctrl-S would stay as it is
    }
    if (hasCursor) {
        try {
            Write(LeaveCodes, -1);
        } catch (const std::system_error&) { // nothing is left to restore
        }
    }
}

std::string Screen::PageText(const std::vector<StyledLine>& page) const {
    std::string text(hasCursor ? Home : "");
    for (std::size_t i = 0; i < page.size(); ++i) {
        const std::string_view code = hasColours ? CodeOf(page[i].style) : "";
        text += hasCursor ? ClearLine : "";
        text += code;
        text += page[i].text;
        text += code.empty() ? "" : PlainCode;
        // The last line of a full screen has no line feed, which would scroll.
        text += hasCursor && i + 1 == page.size() ? "" : "\n";
    }
    text += hasCursor ? ClearRest : "\n";
    return text;
}

bool Screen::Draw(const std::vector<StyledLine>& page, int interrupt) {
    return Write(PageText(page), interrupt);
}

/// Writes in pieces for which a terminal that is ready has room, so that one that is held does not hold this program.
bool Screen::Write(std::string_view text, int interrupt) const {
    constexpr std::size_t piece = 256;
    constexpr int patienceMs = 200; // for what cannot be interrupted
    while (!text.empty()) {
        std::array<pollfd, 2> watched{{{STDOUT_FILENO, POLLOUT, 0}, {interrupt, POLLIN, 0}}};
        const int ready = ::poll(watched.data(), watched.size(), interrupt < 0 ? patienceMs : -1);
        if (watched[1].revents != 0 || ready == 0) {
            return true;
        }
        if (ready < 0) {
            continue;
        }
        const ssize_t count = ::write(STDOUT_FILENO, text.data(), std::min(piece, text.size()));
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EPIPE || errno == EIO) { // EIO: the terminal has hung up
            return false;
        } else if (errno != EINTR && errno != EAGAIN) {
            throw std::system_error(errno, std::generic_category(), "cannot write to standard output");
        }
    }
    return true;
}

std::optional<char> Screen::Key() {
    char key = 0;
    if (!hasKeys) {
        return std::nullopt;
    }
    const ssize_t count = ::read(STDIN_FILENO, &key, 1);
    if (count < 0 && errno != EINTR && errno != EAGAIN) {
        hasKeys = false; // it has hung up
    }
    return count == 1 ? std::optional(key) : std::nullopt;
}

} // namespace terminal
