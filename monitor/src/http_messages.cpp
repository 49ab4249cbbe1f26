#include "http_messages.h"

namespace msgbus_monitor {

namespace http = boost::beast::http;

bool IsProtocolError(const boost::system::error_code& error) {
    return error.category() == make_error_code(http::error::bad_method).category() &&
           error != http::error::end_of_stream && error != http::error::partial_message;
}

Refusal RefusalOf(const boost::system::error_code& error) {
    if (error == http::error::header_limit || error == http::error::buffer_overflow) {
        return {431, "The header of the request is too long."};
    }
    if (error == http::error::body_limit) {
        return {413, "The body of the request is too long."};
    }
    return {400, "The request is not valid HTTP: " + error.message() + "."};
}

HttpResponse ToResponse(const Answer& answer, unsigned version, bool keepsAlive, bool withoutBody) {
    HttpResponse response(static_cast<http::status>(answer.status), version);
    if (!answer.type.empty()) {
        response.set(http::field::content_type, answer.type);
    }
    response.set(http::field::cache_control, "no-store");
    response.set("X-Content-Type-Options", "nosniff");
    if (response.result() == http::status::unauthorized) {
        response.set(http::field::www_authenticate, "Bearer");
    }
    if (!answer.allowed.empty()) {
        response.set(http::field::allow, answer.allowed);
    }
    response.keep_alive(keepsAlive);
    if (response.result() != http::status::no_content) {
        response.content_length(answer.body->size());
    }
    if (!withoutBody) {
        response.body() = {answer.body->data(), answer.body->size()};
    }
    return response;
}

} // namespace msgbus_monitor
