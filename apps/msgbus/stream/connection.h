#pragma once

#include "stream/live_topics.h"
#include "stream/wire/websocket_layer.h"

#include <boost/asio/awaitable.hpp>
#include <boost/beast/websocket/stream.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace stream {

class Broadcast;

/// One client: its subscriptions, and its way to it. Threads: one.
class Connection final {
public:
    using WebSocket = boost::beast::websocket::stream<WebSocketLayer>;

    /// Lifetime: `owner` must outlive this object.
    Connection(std::shared_ptr<Outbox> connectedOutbox, Broadcast& owner, std::string shownAs);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    /// Says how it was, unless only errors are wanted.
    ~Connection();

    /// Serves the client until it ends, or sends what is no request. Requires: the handshake is done.
    boost::asio::awaitable<void> Serve(WebSocket& webSocket);

    void Send(std::string text);
    /// Sends a value, if the client has subscribed to its topic.
    void Send(const LiveValue& value);
    /// Announces the new channels of topics; subscriptions to those before end.
    void Replace(const std::vector<LiveTopics::Change>& changes);
    void ReportDropped();
    void Farewell(std::uint16_t code, const std::string& reason);

private:
    void Answer(const std::string& text);
    /// Each returns: what is wrong with the request, as a sentence; empty: it is served.
    std::string Add(std::uint32_t id, std::uint32_t channel);
    std::string End(std::uint32_t id);

    const std::shared_ptr<Outbox> outbox;
    Broadcast& broadcast;
    const std::string name;
    std::map<std::uint32_t, std::size_t> subscriptions;    ///< topics by id
    std::vector<std::optional<std::uint32_t>> idsOfTopics; ///< the same by topic
    std::set<std::uint32_t> withdrawn; ///< subscriptions to former channels, which the client may still end
    std::uint64_t droppedReported = 0;
};

/// Serves a connection from its handshake to its end. `onConnected`: called when it has become a client.
/// Throws nothing: a client that goes away is everyday.
boost::asio::awaitable<void> ServeClient(std::shared_ptr<Outbox> outbox, Broadcast& broadcast,
                                         std::function<void()> onConnected);

} // namespace stream
