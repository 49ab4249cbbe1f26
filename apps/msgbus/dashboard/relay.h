#pragma once

#include "dashboard/gate.h"

#include <boost/asio/awaitable.hpp>
#include <boost/beast/core/tcp_stream.hpp>

#include <memory>

namespace dashboard {

/// Passes a GET or HEAD request on to the server, through monitor.sock in the runtime directory, and its response to
/// the browser, piece by piece as it arrives: a stream of events ends when either side ends it.
/// Throws: server_access::ServerAwayError, when nothing was sent to the browser yet; boost::system::system_error when
/// the response broke off. Waits: 5 s for the begin of the response, a minute for each further piece.
boost::asio::awaitable<void> Relay(const Request& request, std::shared_ptr<boost::beast::tcp_stream> browser);

} // namespace dashboard
