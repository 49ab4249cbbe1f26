#pragma once

#include <boost/asio/ip/tcp.hpp>

#include <sys/types.h>

#include <optional>

namespace stream {

/// Returns: the user whose process has the other end of a connection within this machine; nothing when that cannot be
/// seen. A port of 127.0.0.1 can be reached by every user of the machine, the bus only by its own.
std::optional<uid_t> OwnerOfPeer(const boost::asio::ip::tcp::socket& socket);

} // namespace stream
