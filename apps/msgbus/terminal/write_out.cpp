#include "write_out.h"

#include "common/escape.h"

#include <nlohmann/json.hpp>

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>

namespace terminal {

namespace {

/// The same value for a program that parses it.
std::string WithoutControl(std::string_view json) {
    std::string line;
    while (!json.empty()) {
        const utf8::Step step = utf8::Decode(json);
        if (common::IsControl(step.point)) { // never outside a string, and never above U+FFFF
            std::array<char, 7> escape{};
            std::snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(step.point));
            line += escape.data();
        } else {
            line += json.substr(0, step.length);
        }
        json.remove_prefix(step.length);
    }
    return line;
}

} // namespace

bool WriteOut(std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(STDOUT_FILENO, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EPIPE) {
            return false;
        } else if (errno == EAGAIN) { // another process that shares stdout has made it non-blocking
            pollfd output{STDOUT_FILENO, POLLOUT, 0};
            ::poll(&output, 1, -1);
        } else if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "cannot write to standard output");
        }
    }
    return true;
}

std::string JsonLine(const nlohmann::ordered_json& value) {
    return WithoutControl(value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)) + '\n';
}

} // namespace terminal
