#include "declaration.h"

#include "common/monitor_socket.h"
#include "kn/runtime_directory.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <string_view>

namespace msgbus {

namespace {

/// A stream socket that blocks in no call and that exec closes; none where there is no descriptor left.
class Socket final {
public:
    Socket() : fd(::socket(AF_UNIX, SOCK_STREAM, 0)) {
        if (fd != -1 && (::fcntl(fd, F_SETFD, FD_CLOEXEC) == -1 || ::fcntl(fd, F_SETFL, O_NONBLOCK) == -1)) {
            ::close(fd);
            fd = -1;
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() {
        if (fd != -1) {
            ::close(fd);
        }
    }

    bool Connect(const sockaddr_un& address) const noexcept {
        return fd != -1 && ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }

    /// A request is shorter than what a socket holds, so it is taken whole.
    void Send(std::string_view request) const noexcept {
        static_cast<void>(::send(fd, request.data(), request.size(), MSG_NOSIGNAL));
    }

private:
    int fd;
};

/// Returns: whether there may be a server that can be asked about itself.
bool FindMonitor(sockaddr_un& address) noexcept {
    address = {};
    address.sun_family = AF_UNIX;
    if (KnRuntimeDirectory(KnMissingDirectory::Fails, address.sun_path, sizeof address.sun_path) != 0) {
        return false;
    }
    const std::size_t length = std::strlen(address.sun_path);
    const std::string_view name = common::MonitorSocketName;
    if (length + 1 + name.size() >= sizeof address.sun_path) {
        return false;
    }
    address.sun_path[length] = '/';
    std::copy(name.begin(), name.end(), address.sun_path + length + 1); // zeros follow
    return true;
}

std::string Percents(std::string_view bytes) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    constexpr unsigned base = 16;
    std::string text;
    for (const char character : bytes) {
        const auto byte = static_cast<unsigned char>(character);
        text += {'%', digits[byte / base], digits[byte % base]};
    }
    return text;
}

} // namespace

void DeclareDescription(const std::string& topic, const std::string& description) noexcept {
    try {
        sockaddr_un monitor;
        if (!FindMonitor(monitor)) {
            return;
        }
        const std::string request = "PUT /v1/topics/" + Percents(topic) +
                                    "/description HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n"
                                    "Content-Type: text/plain; charset=utf-8\r\nContent-Length: " +
                                    std::to_string(description.size()) + "\r\n\r\n" + description;
        const Socket socket;
        if (socket.Connect(monitor)) {
            socket.Send(request);
        }
    } catch (const std::exception&) { // without memory there is no description
    }
}

} // namespace msgbus
