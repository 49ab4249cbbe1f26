#include "listener.h"

#include <sys/socket.h>
#include <unistd.h>

#include <new>
#include <tuple>
#include <utility>

namespace msgbus_monitor {

namespace asio = boost::asio;

namespace {

constexpr std::chrono::milliseconds PauseBetweenAttempts{10};

asio::generic::stream_protocol ProtocolOf(int descriptor) {
    int family = 0;
    socklen_t size = sizeof family;
    ::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &family, &size);
    return {family, 0};
}

/// Only processes of this user and of root are served.
bool IsWelcome(const std::optional<Peer>& peer) {
    return !peer || peer->uid == ::geteuid() || peer->uid == 0;
}

} // namespace

Listener::Listener(asio::io_context& connections, ListeningSocket socket, std::size_t most, Service& shared)
    : file(std::move(socket)), acceptor(connections), pause(connections), mostMembers(most), service(shared) {
    const auto protocol = ProtocolOf(file.Descriptor());
    acceptor.assign(protocol, file.Release());
    acceptor.non_blocking(true);
}

/// Waits first: without a descriptor that is free, the system fails to accept though no client waits.
void Listener::Accept() {
    acceptor.async_wait(Acceptor::wait_read, [this](const boost::system::error_code& error) {
        if (error != asio::error::operation_aborted) {
            OnWaiting();
        }
    });
}

void Listener::OnWaiting() {
    boost::system::error_code error;
    Socket socket(acceptor.get_executor());
    acceptor.accept(socket, error);
    if (error == asio::error::would_block || error == asio::error::connection_aborted) {
        Accept(); // the client has gone
        return;
    }
    if (error) {
        // Most likely there is no descriptor left: one connection less helps the next, and the server.
        if (const auto victim = FirstToGo()) {
            victim->Close();
        }
        After(PauseBetweenAttempts, [this] { Accept(); });
        return;
    }
    newcomer.emplace(std::move(socket));
    Admit();
}

void Listener::Admit() {
    if (!newcomer) {
        return; // was admitted meanwhile
    }
    const auto peer = PeerOf(newcomer->native_handle());
    if (IsWelcome(peer)) {
        if (!MakeRoom()) {
            After(PauseBetweenAttempts, [this] { Admit(); });
            return;
        }
        try {
            Add(std::move(*newcomer), peer);
        } catch (const std::bad_alloc&) {
            // The client is refused, and the next one has better luck.
        }
    }
    newcomer.reset();
    Accept();
}

void Listener::OnAnswered() {
    Admit();
}

void Listener::Add(Socket socket, std::optional<Peer> peer) {
    const auto connection = std::make_shared<Connection>(std::move(socket), peer, service, *this);
    members.emplace(connection.get(), connection);
    connection->Start();
}

/// Closes a connection if there are as many as may be. Returns: whether there is room.
bool Listener::MakeRoom() {
    if (members.size() < mostMembers) {
        return true;
    }
    const auto victim = FirstToGo();
    const bool mayGo = victim && (victim->IsAnswered() ||
                                  Connection::Clock::now() - victim->Since() >= service.options.limits.leastWait);
    if (mayGo) {
        victim->Close();
    }
    return mayGo;
}

/// Returns: the connection that makes room first: one that has its answer and asks for nothing, then one that waits for
/// a request, then one whose answer is not read; of these the one that has for longest. Null: all are streams.
std::shared_ptr<Connection> Listener::FirstToGo() const {
    const auto rank = [](const Connection& each) {
        return std::tuple(!each.IsAnswered(), !each.IsWaitingForRequest(), each.Since());
    };
    std::shared_ptr<Connection> first;
    for (const auto& [key, connection] : members) {
        if (!connection->IsStream() && (!first || rank(*connection) < rank(*first))) {
            first = connection;
        }
    }
    return first;
}

template <typename Action>
void Listener::After(std::chrono::milliseconds delay, Action action) {
    pause.expires_after(delay);
    pause.async_wait([action](const boost::system::error_code& error) {
        if (!error) {
            action();
        }
    });
}

void Listener::Flush() {
    for (const auto& [key, connection] : members) {
        connection->Flush();
    }
}

void Listener::CloseAll() {
    const Members closing = members;
    for (const auto& [key, connection] : closing) {
        connection->Close();
    }
    newcomer.reset();
    boost::system::error_code ignored;
    acceptor.close(ignored);
    pause.cancel();
}

} // namespace msgbus_monitor
