#pragma once

#include "answers.h"
#include "routes.h"

#include <boost/beast/http.hpp>
#include <boost/system/error_code.hpp>

#include <string_view>

// What the monitor and the library for HTTP have to say to each other.

namespace msgbus_monitor {

using HttpResponse = boost::beast::http::response<boost::beast::http::span_body<const char>>;

/// Returns: whether the client has sent what is not a request; false: the connection has ended or failed.
bool IsProtocolError(const boost::system::error_code& error);

/// Returns: the answer to that. Requires: IsProtocolError.
Refusal RefusalOf(const boost::system::error_code& error);

/// Returns: an answer as a response. `withoutBody`: to HEAD. Lifetime: it shows the answer's body.
HttpResponse ToResponse(const Answer& answer, unsigned version, bool keepsAlive, bool withoutBody);

/// Returns: the value of a header; empty: there is none. Lifetime: the request's.
std::string_view HeaderOf(const auto& request, auto field) {
    const auto value = request[field];
    return {value.data(), value.size()};
}

} // namespace msgbus_monitor
