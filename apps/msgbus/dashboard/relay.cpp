#include "dashboard/relay.h"

#include "dashboard/response.h"
#include "server_access/monitor_endpoint.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

#include <array>
#include <chrono>
#include <optional>
#include <sstream>

namespace dashboard {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using Local = asio::local::stream_protocol;
using ServerStream = beast::basic_stream<Local>;
using BrowserStream = std::shared_ptr<beast::tcp_stream>;

namespace {

constexpr std::chrono::seconds AnswerLimit{5};
constexpr std::chrono::seconds PieceLimit{60}; // the server sends something every 10 s even where nothing happens
constexpr std::uint32_t LongestHeader = 16384;
constexpr std::size_t PieceSize = 65536;

Request MakeServerRequest(const Request& request) {
    Request passedOn(request.method(), request.target(), 11);
    passedOn.set(http::field::host, "localhost");
    passedOn.set(http::field::connection, "close");
    for (const auto* const name : {"Accept", "Last-Event-ID"}) {
        if (const auto field = request.find(name); field != request.end()) {
            passedOn.set(name, field->value());
        }
    }
    return passedOn;
}

/// Sends the request and reads the header of the response; what follows it is in `rest`.
asio::awaitable<http::response_header<>> Ask(ServerStream& server, const Request& request, beast::flat_buffer& rest) {
    server.expires_after(AnswerLimit);
    co_await server.async_connect(server_access::MonitorEndpoint(), asio::use_awaitable);
    server_access::RequireOwnServer(server.socket());
    const Request passedOn = MakeServerRequest(request);
    co_await http::async_write(server, passedOn, asio::use_awaitable);
    http::response_parser<http::empty_body> parser;
    parser.header_limit(LongestHeader);
    parser.skip(true); // the body is passed on as it is
    co_await http::async_read_header(server, rest, parser, asio::use_awaitable);
    co_return parser.release().base();
}

/// Ask, with failures as server_access::ServerAwayError.
asio::awaitable<http::response_header<>> AskServer(ServerStream& server, const Request& request,
                                                   beast::flat_buffer& rest) {
    try {
        co_return co_await Ask(server, request, rest);
    } catch (const boost::system::system_error& error) {
        throw server_access::ToServerAway(error.code());
    }
}

/// Ends the connection to the server when the browser has ended its own: the server may have nothing to send.
asio::awaitable<void> AwaitBrowserEnd(BrowserStream browser, std::shared_ptr<ServerStream> server) {
    std::array<char, 512> ignored{};
    boost::system::error_code error;
    while (!error) {
        co_await browser->async_read_some(asio::buffer(ignored), asio::redirect_error(asio::use_awaitable, error));
    }
    server->close();
}

asio::awaitable<void> Copy(ServerStream& server, beast::tcp_stream& browser) {
    std::array<char, PieceSize> piece{};
    while (true) {
        boost::system::error_code error;
        server.expires_after(PieceLimit);
        const std::size_t size =
            co_await server.async_read_some(asio::buffer(piece), asio::redirect_error(asio::use_awaitable, error));
        if (error) { // also the end of the response; a browser sees from the header whether it is complete
            co_return;
        }
        browser.expires_after(PieceLimit);
        co_await asio::async_write(browser, asio::buffer(piece.data(), size), asio::use_awaitable);
    }
}

} // namespace

asio::awaitable<void> Relay(const Request& request, BrowserStream browser) {
    const auto executor = co_await asio::this_coro::executor;
    const auto server = std::make_shared<ServerStream>(executor);
    beast::flat_buffer rest;
    http::response_header<> header = co_await AskServer(*server, request, rest);
    SetCommonHeaders(header);
    std::ostringstream text;
    text << header;
    const std::string head = text.str() + beast::buffers_to_string(rest.data());

    browser->expires_never();
    asio::co_spawn(executor, AwaitBrowserEnd(browser, server), asio::detached);
    browser->expires_after(PieceLimit);
    co_await asio::async_write(*browser, asio::buffer(head), asio::use_awaitable);
    if (request.method() != http::verb::head) {
        co_await Copy(*server, *browser);
    }
}

} // namespace dashboard
