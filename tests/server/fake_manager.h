#pragma once

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

namespace test_support {

/// A service manager's end of NOTIFY_SOCKET, which is set as long as it exists.
class FakeManager final {
public:
    explicit FakeManager(const std::string& name) : socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), name.size());
        if (name.front() == '@') {
            address.sun_path[0] = '\0';
        }
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), length), 0);
        EXPECT_EQ(::setenv("NOTIFY_SOCKET", name.c_str(), 1), 0);
    }
    FakeManager(const FakeManager&) = delete;
    FakeManager& operator=(const FakeManager&) = delete;
    ~FakeManager() {
        ::close(socket);
        ::unsetenv("NOTIFY_SOCKET");
    }

    /// Returns: the next datagram that has arrived.
    std::string Next() const { return Receive(MSG_DONTWAIT); }
    /// Returns: the next datagram. Blocks: until it arrives.
    std::string Await() const { return Receive(0); }

private:
    std::string Receive(int flags) const {
        std::array<char, 256> text{};
        const auto size = ::recv(socket, text.data(), text.size(), flags);
        return size < 0 ? "nothing" : std::string(text.data(), static_cast<std::size_t>(size));
    }

    int socket;
};

} // namespace test_support
