#pragma once

#include "stream/broadcast.h"
#include "stream/wire/outbox.h"
#include "stream/wire/peer_owner.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

namespace stream {

/// Accepts connections. A user who may not connect is refused before it takes anything. Of the others so many may be
/// connecting at once; one more takes the place of the one that has been at it longest. Threads: one.
class Reception final {
public:
    /// Clients, and connections that are not clients yet, or are being refused.
    static constexpr std::size_t MostConnections = 2 * Broadcast::MostClients;

    /// Lifetime: `owner`, and this object, must outlive the context in which Serve runs.
    explicit Reception(Broadcast& owner) : broadcast(owner) {}
    Reception(const Reception&) = delete;
    Reception& operator=(const Reception&) = delete;

    /// Accepts connections without an end. Requires: `acceptor` listens.
    boost::asio::awaitable<void> Serve(boost::asio::ip::tcp::acceptor& acceptor);

private:
    void Take(boost::asio::ip::tcp::socket socket, PeerOwners& owners);
    /// Returns: whether the owner of the other end may connect. Otherwise it has been answered.
    bool Admits(boost::asio::ip::tcp::socket& socket, PeerOwners& owners);
    bool MakeRoom();

    Broadcast& broadcast;
    std::map<std::uint64_t, std::weak_ptr<Outbox>> newcomers; ///< the oldest first; each is kept by its coroutine
    std::uint64_t lastNumber = 0;
};

} // namespace stream
