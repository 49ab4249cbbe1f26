#pragma once

#include <boost/asio/local/stream_protocol.hpp>

#include <stdexcept>

/// Where the server of this user answers questions about itself.
namespace server_access {

/// The server has not answered. what() is a sentence.
class ServerAwayError final : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Returns: monitor.sock in the runtime directory. Throws: ServerAwayError.
boost::asio::local::stream_protocol::endpoint MonitorEndpoint();

/// The directory belongs to this user, so another user's socket is there only by a strange mistake.
/// Throws: ServerAwayError when the other side is another user's, and not root's.
void RequireOwnServer(boost::asio::local::stream_protocol::socket& socket);

/// Returns: what `error`, of connecting, sending or receiving, means.
ServerAwayError ToServerAway(const boost::system::error_code& error);

} // namespace server_access
