#pragma once

#include "loopback_address.h"
#include "monitored.h"

#include <sys/types.h>

#include <optional>
#include <string>

namespace msgbus_monitor {

/// A socket that listens, and the file that leads to it, which goes with this object.
/// Errors: std::system_error, with what was tried.
class ListeningSocket final {
public:
    /// Replaces a socket file without a listener. Throws: also when there is one.
    static ListeningSocket OnPath(const std::string& path);
    static ListeningSocket OnAddress(const LoopbackAddress& address);

    ListeningSocket(ListeningSocket&& other) noexcept;
    ListeningSocket& operator=(ListeningSocket&&) = delete;
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;
    ~ListeningSocket();

    int Descriptor() const noexcept { return descriptor; }
    /// Gives the descriptor away; the file still goes with this object.
    int Release() noexcept;

private:
    explicit ListeningSocket(int family);
    void BindTo(const std::string& socketPath);
    void Listen() const;

    int descriptor = -1; ///< owned; -1: none
    std::string path;    ///< of the file; empty: none
    dev_t device = 0;    ///< of the file
    ino_t node = 0;
};

/// Returns: the port of a socket with an internet address.
std::uint16_t PortOf(int descriptor);

/// Returns: the process at the other end of a Unix socket; nothing for another kind of socket.
std::optional<Peer> PeerOf(int descriptor);

} // namespace msgbus_monitor
