#pragma once

// What the answers of the monitor to a client's bytes have to be, found out from all of them at once.

#include "access.h"
#include "connection.h"
#include "monitored.h"
#include "msgbus/codec.h"
#include "routes.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace monitor_model {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

using msgbus_monitor::DescribeOutcome;
using msgbus_monitor::Resource;

inline constexpr std::string_view Token = "0123456789abcdef";
inline constexpr std::size_t HeaderBytes = 512;
inline constexpr std::size_t BodyBytes = 512;

struct Setting {
    explicit Setting(std::uint8_t flags)
        : isTcp((flags & 1) != 0), isCrowded((flags & 2) != 0), isIll((flags & 4) != 0), isUnreadable((flags & 8) != 0),
          outcome(static_cast<DescribeOutcome>(flags >> 4 & 3)), staysOpen((flags & 64) != 0),
          leavesAtOnce((flags & 128) != 0) {}

    bool isTcp;
    bool isCrowded;
    bool isIll;
    bool isUnreadable;
    DescribeOutcome outcome;
    bool staysOpen;
    bool leavesAtOnce;
};

/// What a client has to get.
struct Expected {
    unsigned status =
        0; ///< 0: an error of a request that cannot be read; it depends on the pieces which one is met first
    bool hasBody = true;
    bool isStream = false;
    bool isLast = false;
    bool isOptional = false;              ///< what is wrong may be found only where the header ends, which it does not
    std::optional<std::uint64_t> after{}; ///< of a stream
    std::string_view type{};              ///< empty: not checked
};

/// Reads the requests of a client as they stand, all at once.
class Prediction final {
public:
    Prediction(std::string_view bytes, bool comesInPieces, const Setting& given)
        : left(bytes), isInPieces(comesInPieces), setting(given) {
        while (ReadRequest()) {
        }
    }

    std::vector<Expected> answers;
    std::size_t descriptions = 0; ///< so many reach the server

private:
    using Parser = http::request_parser<http::string_body>;

    /// Returns: whether the connection stays open for the next request.
    bool ReadRequest() {
        if (left.empty()) {
            return false;
        }
        Parser parser;
        parser.header_limit(HeaderBytes);
        parser.body_limit(BodyBytes);
        const std::size_t before = left.size();
        if (!Feed(parser, [&] { return parser.is_header_done(); })) {
            if (!isBroken && before > HeaderBytes) {
                answers.push_back({0, true, false, true, true}); // too long already
            }
            return false;
        }
        if (before - left.size() > HeaderBytes) {
            answers.push_back({431, true, false, true});
            return false;
        }
        msgbus_monitor::Route route;
        if (const unsigned refused = Refusal(parser.get(), route); refused != 0) {
            return Add({refused}, parser);
        }
        if (!parser.is_done()) {
            if (beast::iequals(parser.get()[http::field::expect], "100-continue") && parser.get().version() == 11) {
                answers.push_back({100, false});
            }
            parser.eager(true);
            if (!Feed(parser, [&] { return parser.is_done(); })) {
                return false;
            }
        }
        return Add(AnswerOf(route, parser.get()), parser);
    }

    template <typename Condition>
    bool Feed(Parser& parser, Condition isEnough) {
        while (!isEnough()) {
            const auto window = left.substr(0, HeaderBytes + 4096);
            boost::system::error_code error;
            const std::size_t used = parser.put(asio::buffer(window), error);
            left.remove_prefix(used);
            if (error && error != http::error::need_more) {
                isBroken = true;
                answers.push_back({0, true, false, true, isInPieces && !parser.is_header_done()});
                return false;
            }
            if (error && used == 0 && window.size() < left.size()) {
                isBroken = true;
                answers.push_back({0, true, false, true}); // no more of it is kept
                return false;
            }
            if (left.empty() || (error && used == 0)) {
                return isEnough(); // the client sends no more
            }
        }
        return true;
    }

    bool StaysOpen(const Parser& parser) const {
        return parser.is_done() && !IsMisframed(parser.get()) && parser.get().keep_alive() && !setting.isCrowded;
    }

    bool Add(Expected answer, const Parser& parser) {
        if (parser.is_done() && parser.get().method() == http::verb::head) {
            answer.hasBody = false;
        }
        answer.isLast = answer.isStream || !StaysOpen(parser);
        answers.push_back(answer);
        return !answer.isLast;
    }

    /// Whether another program could read it otherwise.
    static bool IsMisframed(const auto& request) {
        const auto encoding = msgbus_monitor::HeaderOf(request, http::field::transfer_encoding);
        return (!encoding.empty() && !boost::beast::iequals(encoding, "chunked")) ||
               request.count(http::field::host) > 1;
    }

    unsigned Refusal(const auto& request, msgbus_monitor::Route& route) const {
        using msgbus_monitor::HeaderOf;
        if (IsMisframed(request)) {
            return 400;
        }
        if (setting.isTcp && !msgbus_monitor::IsLoopbackHost(HeaderOf(request, http::field::host))) {
            return 403;
        }
        if (setting.isTcp && !msgbus_monitor::IsAuthorized(HeaderOf(request, http::field::authorization), Token)) {
            return 401;
        }
        auto found = msgbus_monitor::FindRoute(request.method_string(), request.target());
        if (const auto* const refusal = std::get_if<msgbus_monitor::Refusal>(&found)) {
            return refusal->status;
        }
        route = std::get<msgbus_monitor::Route>(found);
        return setting.isTcp && route.resource == Resource::Description ? 403 : 0;
    }

    Expected AnswerOf(const msgbus_monitor::Route& route, const auto& request) {
        switch (route.resource) {
        case Resource::Health:
            return {setting.isIll ? 503U : 200U, true, false, false, false, {}, "text/plain; charset=utf-8"};
        case Resource::Events:
            return StreamOf(route, request);
        case Resource::Description:
            return {DescriptionStatus(request.body())};
        case Resource::Topic:
            if (!setting.isUnreadable && route.topic != "temperature" && route.topic != "pressure") {
                return {404};
            }
            break;
        default:
            break;
        }
        return {setting.isUnreadable ? 503U : 200U};
    }

    Expected StreamOf(const msgbus_monitor::Route& route, const auto& request) {
        auto after = route.after;
        if (const auto last = msgbus_monitor::HeaderOf(request, "Last-Event-ID"); !last.empty()) {
            after = msgbus_monitor::ReadNumber(last);
            if (!after) {
                return {400};
            }
        }
        return {200, true, request.method() != http::verb::head, false, false, after, "text/event-stream"};
    }

    unsigned DescriptionStatus(const std::string& text) {
        try {
            msgbus::Description::FromText(text);
        } catch (const std::invalid_argument&) {
            return 400;
        }
        ++descriptions;
        switch (setting.outcome) {
        case DescribeOutcome::Done:
            return 204;
        case DescribeOutcome::UnknownTopic:
            return 404;
        case DescribeOutcome::NotOwner:
            return 403;
        case DescribeOutcome::NoRoom:
            break;
        }
        return 503;
    }

    std::string_view left;
    const bool isInPieces;
    bool isBroken = false; ///< what was read last is not a request
    const Setting& setting;
};

} // namespace monitor_model
