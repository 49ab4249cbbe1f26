#include "stream/connection.h"

#include "arguments.h"
#include "stream/broadcast.h"
#include "stream/wire/refusal.h"

#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include <array>
#include <chrono>
#include <functional>
#include <utility>

namespace stream {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;

namespace {

constexpr std::chrono::seconds HandshakeLimit{10};
constexpr std::uint32_t LongestHeader = 8192;
constexpr std::size_t LongestRequest = 65536;

auto IntoError(boost::system::error_code& error) {
    return asio::redirect_error(asio::use_awaitable, error);
}

Admission Judge(const Handshake& request, const Broadcast& broadcast) {
    auto admission = broadcast.Rules().Judge(request);
    if (admission.IsGranted() && broadcast.Clients().size() >= Broadcast::MostClients) {
        return {http::status::service_unavailable,
                "there are " + std::to_string(Broadcast::MostClients) + " clients already",
                {}};
    }
    return admission;
}

/// Sends what is left, and waits for the client's end: to close a connection with unread bytes takes from the client
/// what was sent.
asio::awaitable<void> EndConnection(WebSocketLayer& layer) {
    boost::system::error_code error;
    co_await layer.AsyncSendAll(IntoError(error));
    layer.Output().CloseSoon();
    layer.Output().Socket().shutdown(asio::socket_base::shutdown_send, error);
    std::array<char, 4096> ignored{};
    while (!error) {
        co_await layer.async_read_some(asio::buffer(ignored), IntoError(error));
    }
}

/// Sends a response with one sentence, and ends the connection when the client has it.
asio::awaitable<void> Refuse(WebSocketLayer& layer, const Admission& admission) {
    auto response = RefusalOf(admission);
    boost::system::error_code error;
    co_await http::async_write(layer, response, IntoError(error));
    co_await EndConnection(layer);
}

/// Reads the request for a connection. Returns: it; nothing when there is none, or it was answered.
asio::awaitable<std::optional<Handshake>> ReadHandshake(WebSocketLayer& layer, Broadcast& broadcast) {
    beast::flat_buffer buffer;
    http::request_parser<http::empty_body> parser;
    parser.header_limit(LongestHeader);
    boost::system::error_code error;
    co_await http::async_read_header(layer, buffer, parser, IntoError(error));
    if (error) {
        const bool isSyntax = error.category() == make_error_code(http::error::bad_method).category();
        if (isSyntax && error != http::error::end_of_stream && error != http::error::partial_message) {
            const Admission refusal{http::status::bad_request, "the request cannot be read: " + error.message(), {}};
            broadcast.ReportRefusal(refusal.reason);
            co_await Refuse(layer, refusal);
        }
        co_return std::nullopt;
    }
    if (buffer.size() != 0) {
        const Admission refusal{http::status::bad_request, "more than the request came before its answer", {}};
        broadcast.ReportRefusal(refusal.reason);
        co_await Refuse(layer, refusal);
        co_return std::nullopt;
    }
    co_return parser.release();
}

/// Answers the handshake and serves the client.
asio::awaitable<void> ServeWebSocket(Connection::WebSocket& webSocket, std::shared_ptr<Outbox> outbox,
                                     Broadcast& broadcast, const std::function<void()>& onConnected) {
    const auto request = co_await ReadHandshake(webSocket.next_layer(), broadcast);
    if (!request) {
        co_return;
    }
    const Admission admission = Judge(*request, broadcast);
    if (!admission.IsGranted()) {
        broadcast.ReportRefusal(admission.reason);
        co_await Refuse(webSocket.next_layer(), admission);
        co_return;
    }
    webSocket.set_option(websocket::stream_base::decorator([&admission](websocket::response_type& response) {
        response.set(http::field::server, ServerName);
        response.set(http::field::sec_websocket_protocol, admission.subprotocol);
    }));
    // No pings: a client that stands still loses values, and may go on later.
    webSocket.set_option(websocket::stream_base::timeout{HandshakeLimit, websocket::stream_base::none(), false});
    webSocket.read_message_max(LongestRequest);
    boost::system::error_code error;
    co_await webSocket.async_accept(*request, IntoError(error));
    if (error) {
        broadcast.ReportRefusal("the handshake failed: " + error.message());
        co_await EndConnection(webSocket.next_layer()); // the library has answered
        co_return;
    }
    onConnected();
    const auto peer = outbox->Socket().remote_endpoint(error);
    Connection connection(outbox, broadcast,
                          "client " + std::to_string(broadcast.NextNumber()) + " (port " +
                              std::to_string(error ? 0 : peer.port()) + ", " + admission.subprotocol + ')');
    co_await connection.Serve(webSocket);
}

} // namespace

Connection::Connection(std::shared_ptr<Outbox> connectedOutbox, Broadcast& owner, std::string shownAs)
    : outbox(std::move(connectedOutbox)), broadcast(owner), name(std::move(shownAs)),
      idsOfTopics(owner.Topics().Channels().size()) {
    if (!broadcast.IsQuiet()) {
        Say(name + " connected");
    }
    Send(ServerInfo(ServerName, broadcast.SessionId()));
    Send(Advertise(broadcast.Topics().Channels()));
    broadcast.Add(*this);
}

Connection::~Connection() {
    broadcast.Remove(*this);
    const auto dropped = outbox->Pending().Dropped();
    if (dropped != 0) {
        Say(name + " ended; it did not read fast enough: " + std::to_string(dropped) + " values were dropped");
    } else if (!broadcast.IsQuiet()) {
        Say(name + " ended");
    }
}

asio::awaitable<void> Connection::Serve(WebSocket& webSocket) {
    std::string problem;
    websocket::close_code code = websocket::close_code::none;
    while (problem.empty()) {
        beast::flat_buffer buffer;
        boost::system::error_code error;
        while (!outbox->HasRoomForAnswers()) { // a client that asks and never reads is not read any more
            co_await outbox->Sent().async_wait(IntoError(error));
        }
        co_await webSocket.async_read(buffer, IntoError(error));
        if (error) {
            co_return; // also what is no frame: the library has closed the connection
        }
        if (!webSocket.got_text()) {
            code = websocket::close_code::unknown_data;
            problem = "this server takes no values";
            continue;
        }
        try {
            Answer(beast::buffers_to_string(buffer.data()));
        } catch (const BadRequestError& badRequest) {
            code = websocket::close_code::bad_payload;
            problem = badRequest.what();
        }
    }
    if (!broadcast.IsQuiet()) {
        Say(name + " sent what is no request: " + problem);
    }
    outbox->StopBacklog();
    boost::system::error_code ignored;
    co_await webSocket.async_close({code, problem}, IntoError(ignored));
}

void Connection::Answer(const std::string& text) {
    const Request request = ParseRequest(text);
    std::string first; // one answer to one request, however many wishes it has
    std::size_t count = 0;
    const auto note = [&](std::string problem) {
        if (!problem.empty() && count++ == 0) {
            first = std::move(problem);
        }
    };
    if (const auto* const subscribe = std::get_if<Subscribe>(&request)) {
        for (const auto& wish : subscribe->wishes) {
            note(Add(wish.id, wish.channel));
        }
    } else if (const auto* const unsubscribe = std::get_if<Unsubscribe>(&request)) {
        for (const auto id : unsubscribe->ids) {
            note(End(id));
        }
    } else {
        note("this server does not serve '" + std::get<OtherRequest>(request).operation + "'");
    }
    if (count != 0) {
        Send(Status(Level::Error, first + (count == 1 ? "" : " (and " + std::to_string(count - 1) + " more)")));
    }
}

std::string Connection::Add(std::uint32_t id, std::uint32_t channel) {
    const auto topic = broadcast.Topics().TopicOf(channel);
    if (!topic) {
        return "there is no channel " + std::to_string(channel);
    }
    if (subscriptions.contains(id)) {
        return "there is a subscription " + std::to_string(id) + " already";
    }
    if (idsOfTopics[*topic]) {
        return "there is a subscription to channel " + std::to_string(channel) + " already";
    }
    subscriptions[id] = *topic;
    idsOfTopics[*topic] = id;
    withdrawn.erase(id);
    return {};
}

std::string Connection::End(std::uint32_t id) {
    const auto found = subscriptions.find(id);
    if (found == subscriptions.end()) {
        return withdrawn.erase(id) != 0 ? "" : "there is no subscription " + std::to_string(id);
    }
    idsOfTopics[found->second].reset();
    subscriptions.erase(found);
    outbox->Pending().Forget(id);
    return {};
}

void Connection::Send(std::string text) {
    if (outbox->HasFailed()) {
        return;
    }
    if (!outbox->Pending().AddText(std::move(text))) {
        Say(name + " does not read: it is cut");
        outbox->Close();
        return;
    }
    outbox->Schedule();
}

void Connection::Send(const LiveValue& value) {
    if (const auto id = idsOfTopics[value.topic]) {
        outbox->Pending().AddValue({*id, value.timeNs, value.value});
        outbox->Schedule();
    }
}

void Connection::Replace(const std::vector<LiveTopics::Change>& changes) {
    std::vector<std::uint32_t> former;
    std::vector<Channel> current;
    for (const auto& change : changes) {
        if (const auto id = std::exchange(idsOfTopics[change.topic], std::nullopt)) {
            subscriptions.erase(*id);
            withdrawn.insert(*id);
            outbox->Pending().Forget(*id);
        }
        former.push_back(change.oldChannel);
        current.push_back(broadcast.Topics().Channels()[change.topic]);
    }
    Send(Unadvertise(former));
    Send(Advertise(current));
}

void Connection::ReportDropped() {
    const auto dropped = outbox->Pending().Dropped();
    if (dropped == droppedReported) {
        return;
    }
    Say(name + " does not read fast enough: " + std::to_string(dropped) + " values were dropped for it so far");
    droppedReported = dropped;
    outbox->Pending().ReportDropped();
    outbox->Schedule();
}

void Connection::Farewell(std::uint16_t code, const std::string& reason) {
    outbox->Pending().End(CloseFrame(code, reason));
    outbox->Schedule();
}

asio::awaitable<void> ServeClient(std::shared_ptr<Outbox> outbox, Broadcast& broadcast,
                                  std::function<void()> onConnected) {
    Connection::WebSocket webSocket(outbox);
    asio::steady_timer limit(outbox->Socket().get_executor(), HandshakeLimit);
    limit.async_wait([outbox](const boost::system::error_code& error) {
        if (!error) {
            outbox->Close();
        }
    });
    try {
        co_await ServeWebSocket(webSocket, outbox, broadcast, [&] {
            limit.cancel();
            onConnected();
        });
    } catch (const boost::system::system_error&) { // the connection broke off
    }
    limit.cancel();
    outbox->Close();
}

} // namespace stream
