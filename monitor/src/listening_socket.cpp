#include "listening_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace msgbus_monitor {

namespace {

[[noreturn]] void Throw(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        Throw(ENAMETOOLONG, "'" + path + "'");
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

const sockaddr* Generic(const auto& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

/// Returns: whether a server accepts connections at a socket file.
bool IsServed(const std::string& path) {
    const int client = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_un address = AddressOf(path);
    const bool isRefused = ::connect(client, Generic(address), sizeof address) != 0 && errno == ECONNREFUSED;
    ::close(client);
    return !isRefused;
}

bool IsSocket(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

} // namespace

ListeningSocket::ListeningSocket(int family)
    : descriptor(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    if (descriptor < 0) {
        Throw(errno, "no socket can be made");
    }
}

ListeningSocket::ListeningSocket(ListeningSocket&& other) noexcept
    : descriptor(other.Release()), path(std::exchange(other.path, {})), device(other.device), node(other.node) {}

ListeningSocket::~ListeningSocket() {
    struct stat status {};
    if (!path.empty() && ::lstat(path.c_str(), &status) == 0 && status.st_dev == device && status.st_ino == node) {
        ::unlink(path.c_str());
    }
    if (descriptor >= 0) {
        ::close(descriptor);
    }
}

int ListeningSocket::Release() noexcept {
    return std::exchange(descriptor, -1);
}

ListeningSocket ListeningSocket::OnPath(const std::string& path) {
    ListeningSocket socket(AF_UNIX);
    socket.BindTo(path);
    socket.Listen();
    return socket;
}

void ListeningSocket::BindTo(const std::string& socketPath) {
    const sockaddr_un address = AddressOf(socketPath);
    const auto bind = [&] { return ::bind(descriptor, Generic(address), sizeof address) == 0; };
    if (!bind()) {
        const int error = errno;
        const bool isStale = error == EADDRINUSE && IsSocket(socketPath) && !IsServed(socketPath);
        if (!isStale || ::unlink(socketPath.c_str()) != 0 || !bind()) {
            Throw(error, "'" + socketPath + "'");
        }
    }
    path = socketPath;
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 || ::chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0) {
        Throw(errno, "'" + path + "'");
    }
    device = status.st_dev;
    node = status.st_ino;
}

ListeningSocket ListeningSocket::OnAddress(const LoopbackAddress& address) {
    ListeningSocket socket(address.isVersion6 ? AF_INET6 : AF_INET);
    constexpr int on = 1;
    ::setsockopt(socket.descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in version4{};
    version4.sin_family = AF_INET;
    version4.sin_port = htons(address.port);
    sockaddr_in6 version6{};
    version6.sin6_family = AF_INET6;
    version6.sin6_port = htons(address.port);
    int result = -1;
    if (address.isVersion6) {
        ::inet_pton(AF_INET6, address.host.c_str(), &version6.sin6_addr);
        result = ::bind(socket.descriptor, Generic(version6), sizeof version6);
    } else {
        ::inet_pton(AF_INET, address.host.c_str(), &version4.sin_addr);
        result = ::bind(socket.descriptor, Generic(version4), sizeof version4);
    }
    if (result != 0) {
        Throw(errno, address.ToText());
    }
    socket.Listen();
    return socket;
}

void ListeningSocket::Listen() const {
    if (::listen(descriptor, SOMAXCONN) != 0) {
        Throw(errno, path.empty() ? "the address" : "'" + path + "'");
    }
}

std::uint16_t PortOf(int descriptor) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        Throw(errno, "the address");
    }
    return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                                               : reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

std::optional<Peer> PeerOf(int descriptor) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    int family = 0;
    socklen_t familySize = sizeof family;
    if (::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &family, &familySize) != 0 || family != AF_UNIX ||
        ::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return std::nullopt;
    }
    return Peer{credentials.pid, credentials.uid};
}

} // namespace msgbus_monitor
