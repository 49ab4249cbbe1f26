#pragma once

#include "connection.h"
#include "listening_socket.h"

#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>

namespace msgbus_monitor {

/// Accepts connections on one socket, and keeps their number in bounds: see MonitorLimits.
/// Threads: that of the connections.
class Listener final : public IConnectionOwner {
public:
    /// Lifetime: `service` must outlive this object, and this object every run of `connections`.
    Listener(boost::asio::io_context& connections, ListeningSocket socket, std::size_t most, Service& shared);

    void Start() { Accept(); }
    /// Every event stream sends what it lacks.
    void Flush();
    void CloseAll();

    void OnClosed(const Connection& closed) override { members.erase(&closed); }
    bool IsCrowded() const override { return newcomer.has_value(); }
    void OnAnswered() override;

private:
    using Acceptor = boost::asio::basic_socket_acceptor<boost::asio::generic::stream_protocol>;
    using Socket = Connection::Socket;
    using Members = std::map<const Connection*, std::shared_ptr<Connection>>;

    void Accept();
    void OnWaiting();
    void Admit();
    void Add(Socket socket, std::optional<Peer> peer);
    bool MakeRoom();
    std::shared_ptr<Connection> FirstToGo() const;
    template <typename Action>
    void After(std::chrono::milliseconds delay, Action action);

    ListeningSocket file; ///< keeps the socket's file; the acceptor has the descriptor
    Acceptor acceptor;
    boost::asio::steady_timer pause;
    const std::size_t mostMembers;
    Service& service;
    Members members;
    std::optional<Socket> newcomer; ///< is accepted, and waits for room
};

} // namespace msgbus_monitor
