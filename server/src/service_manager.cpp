#include "service_manager.h"

#include "diagnostics.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace msgbus_server {

namespace {

using diagnostics::Log;
using diagnostics::LogLevel;

void Warn(const char* what) {
    Log(LogLevel::Warning, "Cannot report to the service manager (NOTIFY_SOCKET): {}", what);
}

/// Returns: the number in the environment variable; nothing when there is none.
std::optional<std::uint64_t> NumberIn(const char* variable) {
    const char* const text = std::getenv(variable);
    if (text == nullptr) {
        return std::nullopt;
    }
    std::uint64_t number = 0;
    const char* const end = text + std::strlen(text);
    const auto [rest, error] = std::from_chars(text, end, number);
    return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

} // namespace

ServiceManager::ServiceManager() {
    const char* const path = std::getenv("NOTIFY_SOCKET");
    if (path == nullptr || *path == '\0') {
        return;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string_view name(path);
    if ((name.front() != '/' && name.front() != '@') || name.size() >= sizeof address.sun_path) {
        Warn("not the name of a socket");
        return;
    }
    std::copy(name.begin(), name.end(), address.sun_path);
    auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    if (name.front() == '@') {
        address.sun_path[0] = '\0'; // in the abstract namespace, where the length ends the name
    } else {
        ++length;
    }
    socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const timeval limit{1, 0};
    if (socket < 0 || ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0 ||
        ::connect(socket, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        Warn(std::strerror(errno));
        if (socket >= 0) {
            ::close(socket);
            socket = -1;
        }
    }
}

ServiceManager::~ServiceManager() {
    if (socket >= 0) {
        ::close(socket);
    }
}

void ServiceManager::Report(std::string_view assignments) const {
    if (socket >= 0 && ::send(socket, assignments.data(), assignments.size(), MSG_NOSIGNAL) < 0) {
        Warn(std::strerror(errno));
    }
}

std::optional<std::chrono::microseconds> ServiceManager::WatchdogPeriod() {
    const auto period = NumberIn("WATCHDOG_USEC");
    if (!period || *period == 0 || std::getenv("NOTIFY_SOCKET") == nullptr) {
        return std::nullopt;
    }
    const auto process = NumberIn("WATCHDOG_PID");
    if (process && *process != static_cast<std::uint64_t>(::getpid())) {
        return std::nullopt;
    }
    // Beyond these a beat would never be in time, or the clock would not do.
    constexpr std::uint64_t shortest = 1'000;
    constexpr std::uint64_t longest = 1'000'000'000'000;
    return std::chrono::microseconds(std::clamp(*period, shortest, longest));
}

} // namespace msgbus_server
