#include "dashboard/response.h"

#include <nlohmann/json.hpp>

namespace dashboard {

namespace http = boost::beast::http;

namespace {

constexpr const char* ContentSecurityPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self' data:; "
    "frame-ancestors 'none'; base-uri 'none'; form-action 'none'";

constexpr unsigned HttpVersion = 11;

Response MakeResponse(const Request& request, http::status status, std::string_view type, std::string body) {
    Response response(status, HttpVersion);
    SetCommonHeaders(response);
    response.set(http::field::content_type, boost::beast::string_view(type.data(), type.size()));
    response.content_length(body.size());
    if (request.method() != http::verb::head) {
        response.body() = std::move(body);
    }
    return response;
}

} // namespace

void SetCommonHeaders(http::fields& headers) {
    headers.set(http::field::cache_control, "no-store");
    headers.set(http::field::connection, "close");
    headers.set("Content-Security-Policy", ContentSecurityPolicy);
    headers.set("Cross-Origin-Opener-Policy", "same-origin");
    headers.set("Cross-Origin-Resource-Policy", "same-origin");
    headers.set("Referrer-Policy", "no-referrer");
    headers.set("X-Content-Type-Options", "nosniff");
}

Response MakeRefusal(const Request& request, http::status status, const std::string& reason) {
    const bool isForProgram = request.target().starts_with("/v1/");
    Response response = isForProgram ? MakeResponse(request, status, "application/json",
                                                    nlohmann::json{{"error", reason}}.dump() + '\n')
                                     : MakeResponse(request, status, "text/plain; charset=utf-8", reason + '\n');
    if (status == http::status::method_not_allowed) {
        response.set(http::field::allow, "GET, HEAD");
    }
    return response;
}

Response MakeAdmission(const Request& request, const Verdict& verdict) {
    Response response = MakeResponse(request, verdict.status, "text/plain; charset=utf-8", "The dashboard is at /.\n");
    response.set(http::field::location, "/");
    if (!verdict.cookie.empty()) {
        response.set(http::field::set_cookie, verdict.cookie);
    }
    return response;
}

Response MakePage(const Request& request, const PageFile& file) {
    return MakeResponse(request, http::status::ok, file.type, std::string(file.content));
}

} // namespace dashboard
