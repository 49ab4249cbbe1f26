#pragma once

#include "stream/wire/outbox.h"

#include <boost/asio/compose.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/websocket/teardown.hpp>

#include <memory>
#include <utility>

namespace stream {

// NOLINTBEGIN(readability-identifier-naming): names that the library looks for.

/// What the WebSocket library reads from and writes to: it reads from the socket, and writes to the outbox, which takes
/// each of its frames as a whole, so that frames of values can be between them. Not final: the library derives from it
/// to see what it can do.
class WebSocketLayer {
public:
    using executor_type = boost::asio::ip::tcp::socket::executor_type;

    explicit WebSocketLayer(std::shared_ptr<Outbox> writtenTo) : outbox(std::move(writtenTo)) {}

    executor_type get_executor() noexcept { return outbox->Socket().get_executor(); }
    Outbox& Output() noexcept { return *outbox; }

    template <typename Buffers, typename Token>
    auto async_read_some(const Buffers& buffers, Token&& token) {
        return outbox->Socket().async_read_some(buffers, std::forward<Token>(token));
    }

    /// Completes when the outbox has room: a client that sends pings and never reads is not read any more.
    template <typename Buffers, typename Token>
    auto async_write_some(const Buffers& buffers, Token&& token) {
        return boost::asio::async_compose<Token, void(boost::system::error_code, std::size_t)>(
            [outbox = outbox, bytes = boost::beast::buffers_to_string(buffers),
             isFirst = true](auto& self, const boost::system::error_code& = {}) mutable {
                if (std::exchange(isFirst, false)) { // never completes inside this call
                    boost::asio::post(outbox->Socket().get_executor(), std::move(self));
                } else if (outbox->HasFailed()) {
                    self.complete(boost::asio::error::connection_aborted, 0);
                } else if (!outbox->HasRoom()) {
                    outbox->Sent().async_wait(std::move(self));
                } else {
                    outbox->Write(bytes);
                    self.complete({}, bytes.size());
                }
            },
            token, outbox->Socket());
    }

    /// Completes when all is sent, or cannot be.
    template <typename Token>
    auto AsyncSendAll(Token&& token) {
        return boost::asio::async_compose<Token, void(boost::system::error_code)>(
            [outbox = outbox, isFirst = true](auto& self, const boost::system::error_code& = {}) mutable {
                if (std::exchange(isFirst, false)) {
                    boost::asio::post(outbox->Socket().get_executor(), std::move(self));
                } else if (outbox->IsIdle()) {
                    self.complete({});
                } else {
                    outbox->Sent().async_wait(std::move(self));
                }
            },
            token, outbox->Socket());
    }

private:
    std::shared_ptr<Outbox> outbox;
};

/// Called by the library when a connection takes too long to close.
inline void beast_close_socket(WebSocketLayer& layer) {
    layer.Output().Close();
}

/// Called by the library at the end of a connection: its last frame may not be sent yet.
template <typename Handler>
void async_teardown(boost::beast::role_type role, WebSocketLayer& layer, Handler&& handler) {
    layer.Output().StopBacklog();
    layer.Output().CloseSoon();
    layer.AsyncSendAll(
        [role, &layer, handler = std::forward<Handler>(handler)](const boost::system::error_code&) mutable {
            using boost::beast::websocket::async_teardown;
            async_teardown(role, layer.Output().Socket(), std::move(handler));
        });
}

// NOLINTEND(readability-identifier-naming)

} // namespace stream
