#include "stream/wire/refusal.h"

#include <boost/beast/http/field.hpp>

namespace stream {

namespace http = boost::beast::http;

const char* const ServerName = "msgbus " BORVEN_VERSION;

http::response<http::string_body> RefusalOf(const Admission& admission) {
    http::response<http::string_body> response(admission.status, 11);
    response.set(http::field::server, ServerName);
    response.set(http::field::content_type, "text/plain; charset=utf-8");
    response.set(http::field::connection, "close");
    response.set("X-Content-Type-Options", "nosniff");
    if (admission.status == http::status::upgrade_required) {
        response.set(http::field::upgrade, "websocket");
    }
    response.body() = admission.reason + '\n';
    response.prepare_payload();
    return response;
}

} // namespace stream
