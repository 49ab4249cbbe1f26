#include "dashboard/session.h"

#include "dashboard/relay.h"
#include "dashboard/response.h"
#include "server_access/monitor_endpoint.h"

#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

#include <chrono>
#include <optional>

namespace dashboard {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using BrowserStream = std::shared_ptr<beast::tcp_stream>;

namespace {

constexpr std::chrono::seconds RequestLimit{10};
constexpr std::chrono::seconds ResponseLimit{60};
constexpr std::uint32_t LongestHeader = 8192;

asio::awaitable<void> Send(beast::tcp_stream& browser, Response response) {
    browser.expires_after(ResponseLimit);
    http::response_serializer<http::string_body> serializer(response);
    serializer.split(false);
    boost::system::error_code error;
    co_await http::async_write(browser, serializer, asio::redirect_error(asio::use_awaitable, error));
}

/// Returns: what to answer to a request that cannot be read; nothing when the connection has ended or was silent.
std::optional<Response> MakeReadError(const boost::system::error_code& error) {
    if (error == http::error::header_limit) {
        return MakeRefusal({}, http::status::request_header_fields_too_large, "The request's header is too long.");
    }
    const bool isSyntax = error.category() == make_error_code(http::error::bad_method).category();
    if (isSyntax && error != http::error::end_of_stream && error != http::error::partial_message) {
        return MakeRefusal({}, http::status::bad_request, "The request cannot be read: " + error.message() + '.');
    }
    return std::nullopt;
}

/// Returns: the response to a request that the server does not answer.
Response Answer(const Request& request, const Verdict& verdict) {
    if (verdict.kind == Verdict::Kind::Page) {
        const auto target = request.target();
        return MakePage(request, *FindPageFile({target.data(), std::min(target.find('?'), target.size())}));
    }
    return verdict.kind == Verdict::Kind::Admitted ? MakeAdmission(request, verdict)
                                                   : MakeRefusal(request, verdict.status, verdict.reason);
}

asio::awaitable<void> Respond(const Request& request, const Verdict& verdict, BrowserStream browser) {
    if (verdict.kind != Verdict::Kind::Relayed) {
        co_await Send(*browser, Answer(request, verdict));
        co_return;
    }
    std::optional<Response> away; // a handler cannot await
    try {
        co_await Relay(request, browser);
    } catch (const server_access::ServerAwayError& error) {
        away = MakeRefusal(request, http::status::service_unavailable, error.what());
    }
    if (away) {
        co_await Send(*browser, std::move(*away));
    }
}

asio::awaitable<void> ServeRequest(BrowserStream browser, Gate& gate) {
    beast::flat_buffer buffer;
    http::request_parser<http::empty_body> parser;
    parser.header_limit(LongestHeader);
    browser->expires_after(RequestLimit);
    boost::system::error_code error;
    co_await http::async_read_header(*browser, buffer, parser, asio::redirect_error(asio::use_awaitable, error));
    if (error) {
        if (auto response = MakeReadError(error)) {
            co_await Send(*browser, std::move(*response));
        }
        co_return;
    }
    const Request request = parser.release();
    co_await Respond(request, gate.Judge(request), browser);
}

} // namespace

asio::awaitable<void> Serve(asio::ip::tcp::socket socket, Gate& gate) {
    const auto browser = std::make_shared<beast::tcp_stream>(std::move(socket));
    try {
        co_await ServeRequest(browser, gate);
    } catch (const boost::system::system_error&) { // the response broke off, and the browser sees it
    }
    boost::system::error_code ignored;
    browser->socket().shutdown(asio::socket_base::shutdown_send, ignored);
    browser->close();
}

} // namespace dashboard
