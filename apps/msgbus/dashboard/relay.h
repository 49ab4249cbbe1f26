#pragma once

#include "dashboard/gate.h"

#include <boost/asio/awaitable.hpp>
#include <boost/beast/core/tcp_stream.hpp>

#include <memory>
#include <stdexcept>

namespace dashboard {

/// The server has not answered; nothing has been sent to the browser. what() is a sentence.
class ServerAwayError final : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Passes a GET or HEAD request on to the server, through monitor.sock in the runtime directory, and its response to
/// the browser, piece by piece as it arrives: a stream of events ends when either side ends it.
/// Throws: ServerAwayError; boost::system::system_error when the response broke off.
/// Waits: 5 s for the begin of the response, a minute for each further piece.
boost::asio::awaitable<void> Relay(const Request& request, std::shared_ptr<boost::beast::tcp_stream> browser);

} // namespace dashboard
