#include "server_access/monitor_endpoint.h"

#include "common/monitor_socket.h"
#include "instruments/read_account.h"

#include <boost/asio/error.hpp>
#include <boost/beast/core/error.hpp>

#include <sys/socket.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

namespace server_access {

using Local = boost::asio::local::stream_protocol;

Local::endpoint MonitorEndpoint() {
    try {
        return {std::filesystem::path(instruments::AccountPath()).replace_filename(common::MonitorSocketName).string()};
    } catch (const std::runtime_error& error) { // no runtime directory, or none that can be trusted; too long a path
        throw ServerAwayError(error.what());
    }
}

void RequireOwnServer(Local::socket& socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    struct stat directory {}; // its owner is trusted, or there would have been no endpoint
    if (::getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
        ::stat(std::filesystem::path(MonitorEndpoint().path()).parent_path().c_str(), &directory) != 0 ||
        (peer.uid != directory.st_uid && peer.uid != 0)) {
        throw ServerAwayError("the server's socket belongs to another user");
    }
}

ServerAwayError ToServerAway(const boost::system::error_code& error) {
    if (error == boost::asio::error::connection_refused || error == std::errc::no_such_file_or_directory) {
        return ServerAwayError("there is no server in this runtime directory, or it serves no monitor");
    }
    return ServerAwayError(error == boost::beast::error::timeout ? "the server does not answer"
                                                                 : "the server did not answer: " + error.message());
}

} // namespace server_access
