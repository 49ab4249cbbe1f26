#pragma once

#include "names/handshake.h"
#include "support.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <filesystem>
#include <vector>

namespace platform_test {

inline std::string RuntimePath(const std::string& name) {
    return std::string(std::getenv("BORVEN_RUNTIME_DIR")) + '/' + name;
}

inline sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof address.sun_path);
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

/// A socket that sends anything, as a client or a server might that does not use the library.
class RawSocket final {
public:
    explicit RawSocket(int type = SOCK_SEQPACKET) : fd(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {}
    RawSocket(const RawSocket&) = delete;
    RawSocket& operator=(const RawSocket&) = delete;
    RawSocket(RawSocket&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    RawSocket& operator=(RawSocket&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~RawSocket() {
        if (fd >= 0) {
            ::close(fd);
        }
    }

    static RawSocket Adopted(int accepted) {
        RawSocket socket;
        ::close(std::exchange(socket.fd, accepted));
        return socket;
    }

    int Get() const { return fd; }

    /// Returns: 0 or errno.
    int Connect(const std::string& name) const {
        const sockaddr_un address = AddressOf(RuntimePath(name));
        return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
    }

    void ListenAs(const std::string& name) const {
        std::filesystem::create_directories(std::filesystem::path(RuntimePath(name)).parent_path());
        const sockaddr_un address = AddressOf(RuntimePath(name));
        ASSERT_EQ(0, ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
        ASSERT_EQ(0, ::listen(fd, 16));
    }

    /// Removes what ListenAs created.
    void Forget() const {
        std::filesystem::remove_all(RuntimePath("static"));
        std::filesystem::remove_all(RuntimePath("services"));
    }

    RawSocket Accept() const { return Adopted(::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC)); }

    bool Send(const void* bytes, std::size_t size, int flags = 0) const {
        return ::send(fd, bytes, size, MSG_NOSIGNAL | flags) == static_cast<ssize_t>(size);
    }

    bool Greet() const {
        const borven_host::Greeting greeting{borven_host::GreetingMagic, borven_host::LayoutVersion, NkRecordSize};
        return Send(&greeting, sizeof greeting);
    }

    /// Returns: the next message; empty at the end of the connection.
    std::vector<char> Receive() const {
        pollfd waited{fd, POLLIN, 0};
        if (::poll(&waited, 1, static_cast<int>(PatienceMs)) == 0) {
            GiveUp("nothing arrives on a socket");
        }
        std::vector<char> message(8192);
        ssize_t length = ::recv(fd, message.data(), message.size(), 0);
        if (length < 0 && errno == ECONNRESET) {
            length = ::recv(fd, message.data(), message.size(), 0);
        }
        message.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        return message;
    }

    /// Returns: the status that the server answers with; 1 when it answers with something else or not at all.
    std::int32_t Answer() const {
        const std::vector<char> message = Receive();
        borven_host::Answer answer{};
        if (message.size() != sizeof answer) {
            return 1;
        }
        std::memcpy(&answer, message.data(), sizeof answer);
        return answer.magic == borven_host::AnswerMagic ? answer.status : 1;
    }

    bool HasEnded() const {
        pollfd waited{fd, POLLRDHUP, 0};
        return ::poll(&waited, 1, static_cast<int>(PatienceMs)) == 1;
    }

private:
    int fd;
};

/// A raw client that has joined the static connection `name`.
inline RawSocket JoinRaw(const std::string& name = "line") {
    RawSocket socket;
    EXPECT_EQ(0, socket.Connect("static/" + name));
    EXPECT_TRUE(socket.Greet());
    EXPECT_EQ(KnStatusOk, socket.Answer());
    return socket;
}

} // namespace platform_test
