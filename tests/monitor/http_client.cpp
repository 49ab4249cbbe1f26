#include "http_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <sstream>
#include <system_error>
#include <utility>

namespace {

int Connected(int family, const sockaddr* address, socklen_t size) {
    const int descriptor = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    constexpr timeval patience{60, 0};
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    ::setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (::connect(descriptor, address, size) != 0) {
        const int error = errno;
        ::close(descriptor);
        throw std::system_error(error, std::generic_category(), "connect");
    }
    return descriptor;
}

} // namespace

HttpClient::HttpClient(const std::string& socketPath) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    descriptor = Connected(AF_UNIX, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

HttpClient::HttpClient(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    descriptor = Connected(AF_INET, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

HttpClient::HttpClient(HttpClient&& other) noexcept
    : descriptor(std::exchange(other.descriptor, -1)), received(std::move(other.received)) {}

HttpClient::~HttpClient() {
    if (descriptor >= 0) {
        ::close(descriptor);
    }
}

bool HttpClient::Send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

HttpClient::Response HttpClient::Get(std::string_view target, std::string_view headers, std::string_view method) {
    Send(std::string(method) + " " + std::string(target) + " HTTP/1.1\r\nHost: localhost\r\n" + std::string(headers) +
         "\r\n");
    return Receive(method != "HEAD");
}

HttpClient::Response HttpClient::Receive(bool hasBody) {
    Response response;
    const auto head = ReceiveUntil("\r\n\r\n");
    if (!head) {
        return response;
    }
    std::istringstream lines(*head);
    std::string line;
    std::getline(lines, line);
    response.status = std::stoi(line.substr(line.find(' ')));
    while (std::getline(lines, line) && line != "\r") {
        const auto colon = line.find(": ");
        std::string name = line.substr(0, colon);
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
        response.headers[name] = line.substr(colon + 2, line.size() - colon - 3);
    }
    const auto length = response.headers.find("content-length");
    const std::size_t size = hasBody && length != response.headers.end() ? std::stoul(length->second) : 0;
    while (received.size() < size) {
        if (!ReceiveMore()) {
            return {};
        }
    }
    response.body = received.substr(0, size);
    received.erase(0, size);
    return response;
}

std::optional<std::string> HttpClient::ReceiveUntil(std::string_view end) {
    std::size_t at = 0;
    while ((at = received.find(end)) == std::string::npos) {
        if (!ReceiveMore()) {
            return std::nullopt;
        }
    }
    std::string text = received.substr(0, at + end.size());
    received.erase(0, text.size());
    return text;
}

bool HttpClient::AwaitEnd() {
    return received.empty() && !ReceiveMore();
}

void HttpClient::EndSending() {
    ::shutdown(descriptor, SHUT_WR);
}

void HttpClient::HoldLittle() {
    constexpr int little = 1;
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &little, sizeof little);
}

bool HttpClient::ReceiveMore() {
    constexpr std::size_t size = 65536;
    std::array<char, size> bytes{};
    const ssize_t count = ::recv(descriptor, bytes.data(), bytes.size(), 0);
    if (count <= 0) {
        return false;
    }
    received.append(bytes.data(), static_cast<std::size_t>(count));
    return true;
}
