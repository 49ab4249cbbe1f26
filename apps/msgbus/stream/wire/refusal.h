#pragma once

#include "stream/wire/admission.h"

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

namespace stream {

/// How this program calls itself to clients.
extern const char* const ServerName;

/// Returns: the response to a request that is not granted: its reason, behind which the connection ends.
boost::beast::http::response<boost::beast::http::string_body> RefusalOf(const Admission& admission);

} // namespace stream
