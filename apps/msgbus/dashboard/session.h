#pragma once

#include "dashboard/gate.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>

namespace dashboard {

/// Serves one request of one connection, and closes it. `gate` must outlive it. Throws nothing: a browser that goes
/// away is everyday.
boost::asio::awaitable<void> Serve(boost::asio::ip::tcp::socket socket, Gate& gate);

} // namespace dashboard
