// Three hand-overs of a value between sleeping threads, and nothing else: from the publisher to a thread of the relay,
// to the relay's second thread, to the subscriber. Each hop is a unix socket and a blocking read. No topics, no
// acknowledgement: a publish returns when the value is in the first socket. It stands beside the systems in M7.

#include "driver.h"
#include "options.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <thread>
#include <utility>

namespace bench {
namespace {

[[noreturn]] void Fail(const char* what) {
    throw DriverError(std::string("relay: ") + what + ": " + std::strerror(errno));
}

class Socket final {
public:
    explicit Socket(int openDescriptor) : descriptor(openDescriptor) {
        if (descriptor < 0) {
            Fail("socket");
        }
    }
    Socket(Socket&& other) noexcept : descriptor(std::exchange(other.descriptor, -1)) {}
    Socket& operator=(Socket&&) = delete;
    ~Socket() {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    }

    int Descriptor() const { return descriptor; }

    /// Returns: the number of bytes received, 0 at the end. Blocks: until there is one byte.
    std::size_t Receive(std::byte* bytes, std::size_t most) const {
        const auto count = ::recv(descriptor, bytes, most, 0);
        if (count < 0) {
            Fail("recv");
        }
        return static_cast<std::size_t>(count);
    }
    void Send(const std::byte* bytes, std::size_t count) const {
        while (count > 0) {
            const auto sent = ::send(descriptor, bytes, count, MSG_NOSIGNAL);
            if (sent < 0) {
                Fail("send");
            }
            bytes += sent;
            count -= static_cast<std::size_t>(sent);
        }
    }

private:
    int descriptor;
};

sockaddr_un Address(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw DriverError("relay: path too long: " + path);
    }
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

Socket Listen(const std::string& path) {
    Socket socket(::socket(AF_UNIX, SOCK_STREAM, 0));
    const auto address = Address(path);
    if (::bind(socket.Descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(socket.Descriptor(), 1) != 0) {
        Fail("listen");
    }
    return socket;
}

Socket Connect(const std::string& path) {
    Socket socket(::socket(AF_UNIX, SOCK_STREAM, 0));
    const auto address = Address(path);
    if (::connect(socket.Descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        Fail("connect");
    }
    return socket;
}

std::string PublisherEnd(const std::string& directory) {
    return directory + "/in";
}
std::string SubscriberEnd(const std::string& directory) {
    return directory + "/out";
}

void Forward(const Socket& from, const Socket& to) {
    std::array<std::byte, 4096> bytes;
    try {
        while (const auto count = from.Receive(bytes.data(), bytes.size())) {
            to.Send(bytes.data(), count);
        }
    } catch (const DriverError& error) {
        // A client left in the middle; its own process reports why.
        std::fprintf(stderr, "%s\n", error.what());
    }
    ::shutdown(to.Descriptor(), SHUT_WR);
}

int Serve(const std::string& directory) {
    const auto publishers = Listen(PublisherEnd(directory));
    const auto subscribers = Listen(SubscriberEnd(directory));
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0) {
        Fail("socketpair");
    }
    const Socket between(ends[0]);
    const Socket behind(ends[1]);
    std::cout << "ready" << std::endl;
    const Socket publisher(::accept(publishers.Descriptor(), nullptr, nullptr));
    const Socket subscriber(::accept(subscribers.Descriptor(), nullptr, nullptr));
    std::jthread first([&] { Forward(publisher, between); });
    Forward(behind, subscriber);
    return 0;
}

class RelayPublisher final : public IPublisher {
public:
    explicit RelayPublisher(const std::string& directory) : socket(Connect(PublisherEnd(directory))) {}

    bool Publish(std::int64_t value) override {
        socket.Send(reinterpret_cast<const std::byte*>(&value), sizeof(value));
        return true;
    }

private:
    const Socket socket;
};

class RelaySubscriber final : public ISubscriber {
public:
    explicit RelaySubscriber(const std::string& directory) : socket(Connect(SubscriberEnd(directory))) {}

    std::int64_t Next() override {
        if (filled - taken < sizeof(std::int64_t)) {
            std::memmove(bytes.data(), bytes.data() + taken, filled - taken);
            filled -= std::exchange(taken, 0);
            while (filled < sizeof(std::int64_t)) {
                const auto count = socket.Receive(bytes.data() + filled, bytes.size() - filled);
                if (count == 0) {
                    throw DriverError("relay: closed");
                }
                filled += count;
            }
        }
        std::int64_t value = 0;
        std::memcpy(&value, bytes.data() + taken, sizeof(value));
        taken += sizeof(value);
        return value;
    }

private:
    const Socket socket;
    std::array<std::byte, 4096> bytes{};
    std::size_t taken = 0;
    std::size_t filled = 0;
};

class RelayDriver final : public IDriver {
public:
    explicit RelayDriver(const std::string& socketDirectory) : directory(socketDirectory) {}

    std::unique_ptr<IPublisher> MakePublisher(int) override { return std::make_unique<RelayPublisher>(directory); }
    std::unique_ptr<ISubscriber> MakeSubscriber(int) override { return std::make_unique<RelaySubscriber>(directory); }

private:
    const std::string directory;
};

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    try {
        const bench::Options options(argc, argv);
        if (options.Verb() == "serve") {
            return bench::Serve(options.Text("address", "."));
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, error.what());
        return 1;
    }
    return bench::RunDriver([](const auto& address) { return std::make_unique<bench::RelayDriver>(address); }, argc,
                            argv);
}
