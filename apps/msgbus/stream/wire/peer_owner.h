#pragma once

#include <boost/asio/ip/tcp.hpp>

#include <sys/types.h>

#include <cstdint>

namespace stream {

/// What the kernel says of the other end of a connection within this machine.
struct PeerOwner {
    enum class State {
        Known,
        Left,    ///< no process has that end any more
        Unknown, ///< the kernel did not say
    };
    State state = State::Unknown;
    uid_t user = 0; ///< when it is Known
};

/// Finds the users whose processes connect. A port of 127.0.0.1 can be reached by every user of the machine, the bus
/// only by its own.
///
/// It asks the kernel for the one socket, through sock_diag(7), which takes the same time however many there are. Only
/// where that is not to be had, it reads the tables of all of them (proc_net_tcp(5)).
/// Threads: one at a time.
class PeerOwners final {
public:
    /// `acceptor`: listens; its socket is asked for, to see whether the kernel answers.
    explicit PeerOwners(boost::asio::ip::tcp::acceptor& acceptor);
    PeerOwners(const PeerOwners&) = delete;
    PeerOwners& operator=(const PeerOwners&) = delete;
    ~PeerOwners();

    /// Returns: the owner of the other end of `socket`.
    PeerOwner Of(const boost::asio::ip::tcp::socket& socket);
    bool ReadsTables() const noexcept { return descriptor < 0; }

private:
    int descriptor = -1; ///< a socket to the kernel; -1 where it does not answer
    std::uint32_t lastNumber = 0;
};

} // namespace stream
