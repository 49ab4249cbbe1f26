#include "publish/input_lines.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace publish {

namespace {

constexpr std::size_t LongestLine = 4096;

std::string WithoutReturn(std::string line) {
    if (line.ends_with('\r')) {
        line.pop_back();
    }
    return line;
}

} // namespace

std::optional<std::string> InputLines::Next() {
    while (true) {
        if (const auto end = pending.find('\n', taken); end != std::string::npos) {
            std::string line = pending.substr(taken, end - taken);
            taken = end + 1;
            return WithoutReturn(std::move(line));
        }
        pending.erase(0, taken);
        taken = 0;
        if (pending.size() > LongestLine) {
            throw std::invalid_argument("the line is longer than any 64-bit integer");
        }
        if (!Read()) {
            if (pending.empty() || watch.WhyEnded() != EndWatch::Cause::None) {
                return std::nullopt;
            }
            std::string line;
            line.swap(pending);
            return WithoutReturn(std::move(line));
        }
    }
}

/// Appends what is available to `pending`. Returns: false at the end of the input, or when the program is to end.
bool InputLines::Read() {
    std::array<pollfd, 2> watched{{{STDIN_FILENO, POLLIN, 0}, {watch.Descriptor(), POLLIN, 0}}};
    while (::poll(watched.data(), watched.size(), -1) < 0 && errno == EINTR) {
    }
    if (watched[1].revents != 0) {
        return false;
    }
    std::array<char, 65536> buffer;
    const ssize_t count = ::read(STDIN_FILENO, buffer.data(), buffer.size());
    if (count < 0) {
        if (errno == EINTR || errno == EAGAIN) {
            return true;
        }
        throw std::system_error(errno, std::generic_category(), "cannot read standard input");
    }
    pending.append(buffer.data(), static_cast<std::size_t>(count));
    return count > 0;
}

} // namespace publish
