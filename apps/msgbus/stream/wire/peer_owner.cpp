#include "stream/wire/peer_owner.h"

#include <fmt/format.h>

#include <arpa/inet.h>

#include <charconv>
#include <fstream>
#include <sstream>
#include <string>

namespace stream {

namespace {

using boost::asio::ip::tcp;

/// Returns: the address as the kernel's tables have it: the 32 bits as they lie in memory, as a number, and the port.
std::string InTable(const tcp::endpoint& endpoint) {
    return fmt::format("{:08X}:{:04X}", htonl(endpoint.address().to_v4().to_uint()), endpoint.port());
}

/// Looks for the socket with the local address `local` and the remote address `remote` in a table of the kernel
/// (proc_net_tcp(5)). In that of IPv6, an address of IPv4 is the end of a longer number.
std::optional<uid_t> FindOwner(const char* table, const std::string& local, const std::string& remote) {
    std::ifstream file(table);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string number, from, to, state, queues, timer, retransmissions, user;
        words >> number >> from >> to >> state >> queues >> timer >> retransmissions >> user;
        if (from.ends_with(local) && to.ends_with(remote)) {
            uid_t uid = 0;
            const auto [end, error] = std::from_chars(user.data(), user.data() + user.size(), uid);
            if (error == std::errc() && end == user.data() + user.size()) {
                return uid;
            }
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<uid_t> OwnerOfPeer(const tcp::socket& socket) {
    boost::system::error_code error;
    const tcp::endpoint own = socket.local_endpoint(error);
    const tcp::endpoint peer = error ? tcp::endpoint() : socket.remote_endpoint(error);
    if (error || !own.address().is_v4() || !peer.address().is_v4()) {
        return std::nullopt;
    }
    for (const char* const table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        if (const auto owner = FindOwner(table, InTable(peer), InTable(own))) {
            return owner;
        }
    }
    return std::nullopt;
}

} // namespace stream
