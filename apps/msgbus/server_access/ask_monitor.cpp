#include "server_access/ask_monitor.h"

#include "server_access/monitor_endpoint.h"

#include <boost/asio/io_context.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <nlohmann/json.hpp>

#include <chrono>
#include <functional>
#include <string_view>

namespace server_access {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using boost::system::error_code;

namespace {

constexpr std::chrono::seconds AnswerLimit{5};
constexpr std::uint64_t LongestAnswer = 64U << 20;

/// One request and its answer.
class Exchange final {
public:
    Exchange(const std::string& method, const std::string& target)
        : stream(context), request(http::string_to_verb(method), target, 11) {
        request.set(http::field::host, "localhost");
        request.set(http::field::connection, "close");
        parser.body_limit(LongestAnswer);
    }

    MonitorAnswer Run() {
        stream.expires_after(AnswerLimit);
        stream.async_connect(MonitorEndpoint(), Then([this] {
                                 RequireOwnServer(stream.socket());
                                 Send();
                             }));
        context.run();
        if (error) {
            throw ToServerAway(error);
        }
        return {parser.get().result_int(), std::move(parser.get().body())};
    }

private:
    /// Returns: a handler that goes on with `next`, or keeps the error.
    std::function<void(error_code, std::size_t)> ThenSize(std::function<void()> next) {
        return [this, next = std::move(next)](error_code result, std::size_t) { GoOn(result, next); };
    }
    std::function<void(error_code)> Then(std::function<void()> next) {
        return [this, next = std::move(next)](error_code result) { GoOn(result, next); };
    }
    void GoOn(error_code result, const std::function<void()>& next) {
        error = result;
        if (!error) {
            next();
        }
    }

    void Send() {
        http::async_write(stream, request,
                          ThenSize([this] { http::async_read(stream, buffer, parser, ThenSize([] {})); }));
    }

    asio::io_context context;
    beast::basic_stream<asio::local::stream_protocol> stream;
    http::request<http::empty_body> request;
    http::response_parser<http::string_body> parser;
    beast::flat_buffer buffer;
    error_code error;
};

} // namespace

std::string MonitorAnswer::Reason() const {
    const auto json = nlohmann::json::parse(body, nullptr, false);
    return json.is_object() && json.contains("error") && json["error"].is_string() ? json["error"].get<std::string>()
                                                                                   : "status " + std::to_string(status);
}

MonitorAnswer AskMonitor(const std::string& method, const std::string& target) {
    return Exchange(method, target).Run();
}

std::string Percents(std::string_view bytes) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    constexpr unsigned base = 16;
    std::string text;
    for (const char character : bytes) {
        const auto byte = static_cast<unsigned char>(character);
        text += {'%', digits[byte / base], digits[byte % base]};
    }
    return text;
}

} // namespace server_access
