#include "stream/wire/peer_owner.h"

#include <fmt/format.h>

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace stream {

namespace {

using boost::asio::ip::tcp;

/// What the kernel has of a socket.
struct Entry {
    uid_t user = 0;
    bool hasProcess = false; ///< without one the user is shown as root, whoever it was
};

/// A look for one socket. Returns: nothing when there is none; `wasAnswered`: whether that is known.
struct Sight {
    bool wasAnswered = false;
    std::optional<Entry> entry;
};

struct Question {
    nlmsghdr header{};
    inet_diag_req_v2 request{};
};

/// Returns: the question for the socket with the address `local` whose other end is `remote`. It is also found when
/// its process sees it as one of IPv6: the kernel keeps it by its addresses of IPv4.
Question Ask(const tcp::endpoint& local, const tcp::endpoint& remote, std::uint32_t number) {
    Question question;
    question.header.nlmsg_len = sizeof question;
    question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    question.header.nlmsg_flags = NLM_F_REQUEST;
    question.header.nlmsg_seq = number;
    question.request.sdiag_family = AF_INET;
    question.request.sdiag_protocol = IPPROTO_TCP;
    question.request.id.idiag_sport = htons(local.port());
    question.request.id.idiag_dport = htons(remote.port());
    question.request.id.idiag_src[0] = htonl(local.address().to_v4().to_uint());
    question.request.id.idiag_dst[0] = htonl(remote.address().to_v4().to_uint());
    question.request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    question.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return question;
}

/// Reads one answer. Returns: nothing when it is none to `question`.
std::optional<Sight> Read(const char* bytes, std::size_t size, const Question& question) {
    nlmsghdr header{};
    if (size < sizeof header) {
        return std::nullopt;
    }
    std::memcpy(&header, bytes, sizeof header);
    const char* const body = bytes + NLMSG_HDRLEN;
    if (header.nlmsg_seq != question.header.nlmsg_seq || header.nlmsg_len > size) {
        return std::nullopt;
    }
    if (header.nlmsg_type == NLMSG_ERROR && header.nlmsg_len >= NLMSG_LENGTH(sizeof(nlmsgerr))) {
        nlmsgerr error{};
        std::memcpy(&error, body, sizeof error);
        return Sight{error.error == -ENOENT, std::nullopt};
    }
    if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY || header.nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) {
        return Sight{};
    }
    inet_diag_msg found{};
    std::memcpy(&found, body, sizeof found);
    // Where there is no connection, the kernel gives the socket that would accept one.
    if (found.id.idiag_sport != question.request.id.idiag_sport ||
        found.id.idiag_dport != question.request.id.idiag_dport) {
        return Sight{true, std::nullopt};
    }
    return Sight{true, Entry{found.idiag_uid, found.idiag_inode != 0}};
}

/// Asks the kernel, which has answered when send returns.
Sight LookUp(int descriptor, const tcp::endpoint& local, const tcp::endpoint& remote, std::uint32_t number) {
    const Question question = Ask(local, remote, number);
    if (::send(descriptor, &question, sizeof question, MSG_DONTWAIT) != static_cast<ssize_t>(sizeof question)) {
        return {};
    }
    alignas(nlmsghdr) std::array<char, 8192> bytes; // more than there is of one socket
    while (true) {
        const auto size = ::recv(descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (size < 0) {
            return {};
        }
        if (auto sight = Read(bytes.data(), static_cast<std::size_t>(size), question)) {
            return *sight;
        }
    }
}

/// Returns: the address as the kernel's tables have it: the 32 bits as they lie in memory, as a number, and the port.
std::string InTable(const tcp::endpoint& endpoint) {
    return fmt::format("{:08X}:{:04X}", htonl(endpoint.address().to_v4().to_uint()), endpoint.port());
}

/// Looks for a socket in a table. In that of IPv6, an address of IPv4 is the end of a longer number.
Sight LookUp(const char* table, const tcp::endpoint& local, const tcp::endpoint& remote) {
    const std::string from = InTable(local);
    const std::string to = InTable(remote);
    std::ifstream file(table);
    Sight sight{file.is_open(), std::nullopt};
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string number, own, other, state, queues, timer, retransmissions, user, timeouts, inode;
        words >> number >> own >> other >> state >> queues >> timer >> retransmissions >> user >> timeouts >> inode;
        if (own.ends_with(from) && other.ends_with(to)) {
            uid_t uid = 0;
            const auto [end, error] = std::from_chars(user.data(), user.data() + user.size(), uid);
            if (error == std::errc() && end == user.data() + user.size()) {
                sight.entry = Entry{uid, inode != "0"};
                break;
            }
        }
    }
    return sight;
}

PeerOwner OwnerOf(const Sight& sight) {
    if (!sight.wasAnswered) {
        return {PeerOwner::State::Unknown, 0};
    }
    if (!sight.entry || !sight.entry->hasProcess) {
        return {PeerOwner::State::Left, 0};
    }
    return {PeerOwner::State::Known, sight.entry->user};
}

} // namespace

PeerOwners::PeerOwners(tcp::acceptor& acceptor)
    : descriptor(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {
    // "No such socket" and "no such protocol" are one error, so the first question is for a socket that is there.
    boost::system::error_code error;
    const auto own = acceptor.local_endpoint(error);
    if (descriptor >= 0 && (error || !LookUp(descriptor, own, tcp::endpoint(), ++lastNumber).entry)) {
        ::close(descriptor);
        descriptor = -1;
    }
}

PeerOwners::~PeerOwners() {
    if (descriptor >= 0) {
        ::close(descriptor);
    }
}

PeerOwner PeerOwners::Of(const tcp::socket& socket) {
    boost::system::error_code error;
    const tcp::endpoint own = socket.local_endpoint(error);
    const tcp::endpoint peer = error ? tcp::endpoint() : socket.remote_endpoint(error);
    if (error) {
        return {PeerOwner::State::Left, 0};
    }
    if (!own.address().is_v4() || !peer.address().is_v4()) {
        return {PeerOwner::State::Unknown, 0};
    }
    if (!ReadsTables()) {
        return OwnerOf(LookUp(descriptor, peer, own, ++lastNumber));
    }
    const Sight sight = LookUp("/proc/net/tcp", peer, own);
    const Sight other = sight.entry ? Sight{} : LookUp("/proc/net/tcp6", peer, own); // there may be no IPv6
    return OwnerOf(other.entry ? other : sight);
}

} // namespace stream
