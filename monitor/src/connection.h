#pragma once

#include "access.h"
#include "answers.h"
#include "event_feed.h"
#include "http_messages.h"
#include "monitor.h"
#include "routes.h"

#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace msgbus_monitor {

/// What all connections share. Threads: that of the connections, but for `worker`.
struct Service {
    IMonitored& monitored;
    const MonitorOptions& options;
    boost::asio::io_context& worker; ///< its thread alone uses `answers`
    Answers& answers;
    std::size_t openStreams = 0;
    /// Requests that the worker has, those without a connection included. Shared with what was posted.
    std::shared_ptr<std::atomic<std::size_t>> pendingWork = std::make_shared<std::atomic<std::size_t>>(std::size_t{0});
};

class Connection;

/// Where connections belong.
class IConnectionOwner {
public:
    virtual ~IConnectionOwner() = default;
    /// Called once, by Close.
    virtual void OnClosed(const Connection& closed) = 0;
    /// Returns: whether another connection waits for room.
    virtual bool IsCrowded() const = 0;
    /// A connection has been answered, and can make room.
    virtual void OnAnswered() = 0;
};

/// One connection: reads requests and writes answers, one after the other, or becomes an event stream. Every phase of
/// it has a time limit. Threads: that of the connections.
class Connection final : public std::enable_shared_from_this<Connection> {
public:
    using Clock = std::chrono::steady_clock;
    using Socket = boost::asio::generic::stream_protocol::socket;

    /// `peer`: of a Unix socket. Lifetime: the others must outlive every run of the connections' thread.
    Connection(Socket accepted, std::optional<Peer> peer, Service& shared, IConnectionOwner& keeper);

    void Start() { AwaitRequest(); }

    /// Closes the socket; whatever is under way ends without effect.
    void Close();

    /// An event stream sends what it lacks.
    void Flush();

    /// For the choice of the connection that is to make room, see MonitorLimits.
    bool IsStream() const noexcept { return phase == Phase::Streaming; }
    bool IsWaitingForRequest() const noexcept { return phase == Phase::Idle || phase == Phase::Reading; }
    bool IsAnswered() const noexcept { return phase == Phase::Lingering || (phase == Phase::Idle && answered != 0); }
    Clock::time_point Since() const noexcept { return since; }

private:
    enum class Phase { Idle, Reading, Working, Writing, Lingering, Streaming, Closed };
    using Parser = boost::beast::http::request_parser<boost::beast::http::string_body>;
    using ErrorCode = boost::system::error_code;

    void Enter(Phase next, std::chrono::milliseconds limit);
    auto Then(void (Connection::*next)());
    void OnDeadline();

    void AwaitRequest();
    void ReadHeader();
    void OnHeader(ErrorCode error, std::size_t size);
    void ReadBody();
    void OnBody(ErrorCode error);
    void OnReadFailure(ErrorCode error);
    std::optional<Refusal> CheckFraming();
    std::optional<Refusal> CheckAccess() const;
    std::optional<Refusal> CheckRoute();

    void Handle();
    void Work();
    void AnswerHealth();
    void Refuse(const Refusal& refusal);
    void Write(Answer answer);
    void OnWritten();
    void Linger();

    void Stream();
    std::optional<Refusal> StreamStart(std::optional<std::uint64_t>& after) const;
    void SendEvents();
    void SendText();
    void OnTextSent();
    void AwaitEndOfStream();

    Socket socket;
    boost::asio::steady_timer deadline;
    const std::optional<Peer> client;
    Service& service;
    IConnectionOwner& owner;

    Phase phase = Phase::Idle;
    Clock::time_point since{}; ///< of the phase; of Reading: since the connection waits for the request
    bool hasTimedOut = false;
    std::uint64_t requestNumber = 0; ///< an answer to an earlier one comes too late

    boost::beast::flat_buffer buffer;
    std::optional<Parser> parser;
    std::optional<Route> route;
    bool keepsAlive = false;
    bool isMisframed = false;
    std::uint64_t answered = 0; ///< so many requests have been

    std::optional<Answer> written; ///< what `response` shows
    std::optional<HttpResponse> response;
    std::array<char, 512> discarded{};

    std::optional<EventFeed> feed;
    std::string streamText; ///< is being sent
};

} // namespace msgbus_monitor
