#pragma once

#include "stream/wire/backlog.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace stream {

/// Sends what goes to one client: the bytes of the WebSocket library (answers to a handshake, a ping, a close), and the
/// frames of the backlog. What comes within a millisecond is sent with one system call, because a call for each value
/// would take more than a CPU at 100,000 values per second.
///
/// Memory: the backlog, one batch that is being sent, the bytes of the library, and the socket's buffer in the kernel;
/// each has its limit.
/// Threads: one at a time. Lifetime: kept by its own operations; owned by a shared_ptr.
class Outbox final : public std::enable_shared_from_this<Outbox> {
public:
    static constexpr std::size_t BatchBytes = 65536;
    static constexpr std::chrono::milliseconds Delay{1};

    explicit Outbox(boost::asio::ip::tcp::socket connected);

    boost::asio::ip::tcp::socket& Socket() noexcept { return socket; }
    Backlog& Pending() noexcept { return backlog; }

    /// Takes whole frames, which are sent before the backlog. Requires: HasRoom.
    void Write(std::string_view bytes);
    bool HasRoom() const noexcept { return direct.size() < BatchBytes; }
    /// Returns: whether a request may be read, whose answer will wait behind the texts that do.
    bool HasRoomForAnswers() const noexcept { return hasFailed || backlog.TextBytes() < BatchBytes; }
    /// Lets the backlog be sent. To be called behind each addition.
    void Schedule();
    /// Lets nothing more be taken from the backlog: the connection is being closed, and Write has the last word.
    void StopBacklog() { isBacklogStopped = true; }

    bool HasFailed() const noexcept { return hasFailed; }
    bool IsIdle() const noexcept { return hasFailed || (!isSending && direct.empty() && !HasBacklog()); }
    /// Returns: a timer without end that is cancelled after each sending.
    boost::asio::steady_timer& Sent() noexcept { return sent; }

    /// Ends the connection at once.
    void Close();
    /// Ends it after a second, if the client has not done so: it has, or gets, the last bytes.
    void CloseSoon();

private:
    bool HasBacklog() const noexcept { return !isBacklogStopped && !backlog.IsEmpty(); }
    void Send();
    void OnSent(const boost::system::error_code& error);

    boost::asio::ip::tcp::socket socket;
    boost::asio::steady_timer delay;
    boost::asio::steady_timer sent;
    boost::asio::steady_timer end;
    Backlog backlog;
    std::string direct; ///< of Write
    std::string batch;  ///< is being sent
    bool isScheduled = false;
    bool isSending = false;
    bool isBacklogStopped = false;
    bool hasFailed = false;
};

} // namespace stream
