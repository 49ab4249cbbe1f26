#include "connection.h"

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>

#include <utility>

namespace msgbus_monitor {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

namespace {

constexpr unsigned RequestTimeout = 408;
constexpr std::size_t BufferBeyondHeader = 4096;
constexpr std::chrono::milliseconds LingerTime{1000};

} // namespace

Connection::Connection(Socket accepted, std::optional<Peer> peer, Service& shared, IConnectionOwner& keeper)
    : socket(std::move(accepted)), deadline(socket.get_executor()), client(peer), service(shared), owner(keeper),
      buffer(service.options.limits.headerBytes + BufferBeyondHeader) {}

/// Returns: a handler that goes on with `next`; after an error it closes the connection.
auto Connection::Then(void (Connection::*next)()) {
    return [self = shared_from_this(), next](ErrorCode error, std::size_t = 0) {
        if (self->phase == Phase::Closed) {
            return;
        }
        if (error) {
            self->Close();
        } else {
            ((*self).*next)();
        }
    };
}

void Connection::Close() {
    if (phase == Phase::Closed) {
        return;
    }
    if (phase == Phase::Streaming) {
        --service.openStreams;
    }
    phase = Phase::Closed;
    ErrorCode ignored;
    socket.close(ignored);
    deadline.cancel();
    owner.OnClosed(*this);
}

void Connection::Enter(Phase next, std::chrono::milliseconds limit) {
    if (phase != Phase::Idle || next != Phase::Reading) {
        since = Clock::now();
    }
    phase = next;
    deadline.expires_after(limit);
    deadline.async_wait([self = shared_from_this()](ErrorCode error) {
        if (!error && self->deadline.expiry() <= Clock::now()) {
            self->OnDeadline();
        }
    });
}

void Connection::OnDeadline() {
    switch (phase) {
    case Phase::Reading: {
        hasTimedOut = true;
        ErrorCode ignored;
        socket.cancel(ignored);
        break;
    }
    case Phase::Working:
        ++requestNumber;
        Refuse({503, "There is no answer in time."});
        break;
    case Phase::Closed:
        break;
    default:
        Close();
    }
}

// -- requests

void Connection::AwaitRequest() {
    parser.reset();
    Enter(Phase::Idle, service.options.limits.idleTime);
    if (buffer.size() != 0) {
        ReadHeader();
        return;
    }
    socket.async_wait(Socket::wait_read, Then(&Connection::ReadHeader));
}

void Connection::ReadHeader() {
    Enter(Phase::Reading, service.options.limits.requestTime);
    hasTimedOut = false;
    parser.emplace();
    parser->header_limit(service.options.limits.headerBytes);
    parser->body_limit(service.options.limits.bodyBytes);
    http::async_read_header(socket, buffer, *parser, [self = shared_from_this()](ErrorCode error, std::size_t size) {
        if (self->phase != Phase::Closed) {
            self->OnHeader(error, size);
        }
    });
}

void Connection::OnHeader(ErrorCode error, std::size_t size) {
    if (!error && size > service.options.limits.headerBytes) { // the parser bounds the first line and the others apart
        parser.emplace();
        error = http::error::header_limit;
    }
    if (error || hasTimedOut) {
        OnReadFailure(error);
        return;
    }
    auto refusal = CheckFraming();
    if (!refusal) {
        refusal = CheckAccess();
    }
    if (!refusal) {
        refusal = CheckRoute();
    }
    if (refusal) {
        Refuse(*refusal);
    } else if (parser->is_done()) {
        Handle();
    } else {
        ReadBody();
    }
}

void Connection::ReadBody() {
    const auto& request = parser->get();
    // A client with HTTP/1.0 would take it for the answer.
    if (request.version() >= 11 && beast::iequals(HeaderOf(request, http::field::expect), "100-continue")) {
        static constexpr std::string_view goOn = "HTTP/1.1 100 Continue\r\n\r\n";
        ErrorCode ignored; // the read meets it, too
        socket.non_blocking(true, ignored);
        socket.write_some(asio::buffer(goOn), ignored);
    }
    http::async_read(socket, buffer, *parser, [self = shared_from_this()](ErrorCode error, std::size_t) {
        if (self->phase != Phase::Closed) {
            self->OnBody(error);
        }
    });
}

void Connection::OnBody(ErrorCode error) {
    if (error || hasTimedOut) {
        OnReadFailure(error);
    } else {
        Handle();
    }
}

void Connection::OnReadFailure(ErrorCode error) {
    if (hasTimedOut) {
        Refuse({RequestTimeout, "The request took too long."});
    } else if (IsProtocolError(error)) {
        Refuse(RefusalOf(error));
    } else {
        Close(); // the client has gone
    }
}

/// Refuses what another program on the way could read otherwise. Nothing that follows is read then.
std::optional<Refusal> Connection::CheckFraming() {
    const auto& request = parser->get();
    const std::string_view encoding = HeaderOf(request, http::field::transfer_encoding);
    if (!encoding.empty() && !beast::iequals(encoding, "chunked")) {
        isMisframed = true;
        return Refusal{400, "The only transfer encoding is 'chunked'."};
    }
    if (request.count(http::field::host) > 1) {
        isMisframed = true;
        return Refusal{400, "There is more than one header 'Host'."};
    }
    return std::nullopt;
}

std::optional<Refusal> Connection::CheckAccess() const {
    const auto& request = parser->get();
    if (client) {
        return std::nullopt; // the kernel has said who it is
    }
    if (!IsLoopbackHost(HeaderOf(request, http::field::host))) {
        return Refusal{403, "The header 'Host' must be a loopback address or 'localhost'."};
    }
    if (!IsAuthorized(HeaderOf(request, http::field::authorization), service.options.token)) {
        return Refusal{401, "The header 'Authorization' must be 'Bearer' and the token of the server."};
    }
    return std::nullopt;
}

std::optional<Refusal> Connection::CheckRoute() {
    const auto& request = parser->get();
    auto found = FindRoute(request.method_string(), request.target());
    if (auto* const refusal = std::get_if<Refusal>(&found)) {
        return std::move(*refusal);
    }
    route = std::get<Route>(std::move(found));
    if (IsWrite(*route) && !client) {
        return Refusal{403, "Over TCP nothing can be written: only the Unix socket shows which process asks."};
    }
    return std::nullopt;
}

// -- answers

void Connection::Handle() {
    if (route->resource == Resource::Health) {
        AnswerHealth();
    } else if (route->resource == Resource::Events) {
        Stream();
    } else {
        Work();
    }
}

void Connection::AnswerHealth() {
    const auto reason = service.monitored.WhyUnhealthy();
    Write({reason ? 503U : 200U, "text/plain; charset=utf-8",
           std::make_shared<const std::string>((reason ? *reason : "ok") + "\n")});
}

/// Has the answer made by the worker, since that may take long.
void Connection::Work() {
    if (*service.pendingWork >= service.options.limits.unixConnections + service.options.limits.tcpConnections) {
        Refuse({503, "Earlier requests have no answer yet."});
        return;
    }
    // Counted until the last of what is posted has gone, whether it has run or could not be posted.
    ++*service.pendingWork;
    std::shared_ptr<void> pending(nullptr, [count = service.pendingWork](void*) { --*count; });
    Enter(Phase::Working, service.options.limits.answerTime);
    auto work = [self = shared_from_this(), number = ++requestNumber, asked = *route, pending = std::move(pending),
                 body = std::move(parser->get().body())] {
        Answer answer = asked.resource == Resource::Description
                            ? self->service.answers.Put(*self->client, asked.topic, body)
                        : asked.resource == Resource::Trace ? self->service.answers.Trace(asked)
                                                            : self->service.answers.Get(asked);
        asio::post(self->socket.get_executor(), [self, number, pending, answer = std::move(answer)]() mutable {
            pending.reset(); // before the client can ask again
            if (self->phase == Phase::Working && self->requestNumber == number) {
                self->Write(std::move(answer));
            }
        });
    };
    asio::post(service.worker, std::move(work));
}

/// Answers with an error, and closes the connection where the rest of the request is not read.
void Connection::Refuse(const Refusal& refusal) {
    Write(ToAnswer(refusal));
}

void Connection::Write(Answer answer) {
    Enter(Phase::Writing, service.options.limits.writeTime);
    const bool isWhole = parser->is_done();
    const bool isHead = isWhole && parser->get().method() == http::verb::head;
    keepsAlive = isWhole && !isMisframed && parser->get().keep_alive() && !owner.IsCrowded();
    written = std::move(answer);
    response = ToResponse(*written, isWhole ? parser->get().version() : 11U, keepsAlive, isHead);
    http::async_write(socket, *response, Then(&Connection::OnWritten));
}

void Connection::OnWritten() {
    response.reset();
    written.reset();
    ++answered;
    if (keepsAlive) {
        AwaitRequest();
    } else {
        ErrorCode ignored;
        socket.shutdown(Socket::shutdown_send, ignored);
        Enter(Phase::Lingering, LingerTime);
        Linger();
    }
    owner.OnAnswered();
}

/// Reads what the client still sends: closing the socket before would destroy the answer on its way.
void Connection::Linger() {
    socket.async_read_some(asio::buffer(discarded), Then(&Connection::Linger));
}

// -- event streams

void Connection::Stream() {
    std::optional<std::uint64_t> after;
    if (const auto refusal = StreamStart(after)) {
        Refuse(*refusal);
        return;
    }
    if (parser->get().method() == http::verb::head) {
        Write({200, "text/event-stream", std::make_shared<const std::string>()});
        return;
    }
    streamText = "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nCache-Control: no-store\r\n"
                 "X-Content-Type-Options: nosniff\r\nConnection: close\r\n\r\n";
    feed.emplace(service.monitored, after, service.options.limits.keepAliveTime);
    ++service.openStreams;
    Enter(Phase::Streaming, service.options.limits.writeTime);
    AwaitEndOfStream();
    SendText();
}

/// Finds out where a stream begins. Returns: nothing; else why there is none.
std::optional<Refusal> Connection::StreamStart(std::optional<std::uint64_t>& after) const {
    if (service.openStreams >= service.options.limits.eventStreams) {
        return Refusal{503, "There are as many event streams as may be; close one of them."};
    }
    after = route->after;
    const std::string_view lastId = HeaderOf(parser->get(), "Last-Event-ID");
    if (lastId.empty()) {
        return std::nullopt;
    }
    after = ReadNumber(lastId);
    if (!after) {
        return Refusal{400, "The header 'Last-Event-ID' must be the number of an event."};
    }
    return std::nullopt;
}

void Connection::SendEvents() {
    if (phase != Phase::Streaming) {
        return;
    }
    try {
        streamText += feed->Next(Clock::now());
    } catch (const std::exception&) { // the client connects again, and goes on behind what it has
        Close();
        return;
    }
    if (!streamText.empty()) {
        Enter(Phase::Streaming, service.options.limits.writeTime);
        SendText();
        return;
    }
    deadline.expires_after(service.options.limits.pollTime);
    deadline.async_wait([self = shared_from_this()](ErrorCode error) {
        if (!error) {
            self->SendEvents();
        }
    });
}

void Connection::SendText() {
    asio::async_write(socket, asio::buffer(streamText), Then(&Connection::OnTextSent));
}

void Connection::OnTextSent() {
    streamText.clear();
    SendEvents();
}

/// A client of a stream sends nothing more; that it has gone shows at once.
void Connection::AwaitEndOfStream() {
    socket.async_read_some(asio::buffer(discarded), Then(&Connection::AwaitEndOfStream));
}

void Connection::Flush() {
    if (IsStream() && streamText.empty()) {
        streamText = feed->Next(Clock::now());
        ErrorCode ignored;
        socket.non_blocking(true, ignored);
        socket.write_some(asio::buffer(streamText), ignored);
    }
}

} // namespace msgbus_monitor
