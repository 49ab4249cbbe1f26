#include "dashboard/gate.h"

#include "common/secret.h"
#include "dashboard/page_files.h"

namespace dashboard {

namespace http = boost::beast::http;

namespace {

constexpr std::string_view TokenQuery = "token=";
constexpr std::string_view OriginScheme = "http://";
constexpr const char* NotAdmitted = "Open the address that 'msgbus dashboard' has printed.";
constexpr const char* TokenIsUsed =
    "This address has been used: it lets one browser in, once. Start 'msgbus dashboard' "
    "again for a new one.";

std::string_view View(boost::beast::string_view text) {
    return {text.data(), text.size()};
}

Verdict Refuse(http::status status, std::string reason) {
    return {Verdict::Kind::Refused, status, std::move(reason), {}};
}

/// Returns: whether the server answers requests for `path`, which has no query.
bool IsRelayed(std::string_view path) {
    // A server might resolve such segments, and then the path would be another one.
    const bool hasDots = path.find("/./") != path.npos || path.find("/../") != path.npos || path.ends_with("/.") ||
                         path.ends_with("/..");
    return !hasDots && (path == "/metrics" || (path.starts_with("/v1/") && path.size() > 4));
}

} // namespace

// Cookies are sent to all ports of a host: the name keeps two dashboards apart.
Gate::Gate(std::uint16_t ownPort)
    : port(ownPort), cookieName("msgbus-dashboard-" + std::to_string(ownPort)), token(common::MakeSecret()),
      cookieValue(common::MakeSecret()) {}

bool Gate::IsOwnHost(std::string_view host) const {
    constexpr std::uint16_t portOfHttp = 80;
    const std::string ending = ':' + std::to_string(port);
    for (const std::string name : {"127.0.0.1", "localhost"}) {
        if (host == name + ending || (port == portOfHttp && host == name)) {
            return true;
        }
    }
    return false;
}

bool Gate::HasCookie(const Request& request) const {
    std::string_view cookies = View(request[http::field::cookie]);
    while (!cookies.empty()) {
        const auto end = cookies.find(';');
        std::string_view cookie = cookies.substr(0, end);
        cookies.remove_prefix(end == cookies.npos ? cookies.size() : end + 1);
        cookie.remove_prefix(std::min(cookie.find_first_not_of(' '), cookie.size()));
        const auto sign = cookie.find('=');
        if (sign != cookie.npos && cookie.substr(0, sign) == cookieName &&
            common::IsSecret(cookieValue, cookie.substr(sign + 1))) {
            return true;
        }
    }
    return false;
}

Verdict Gate::JudgeToken(const Request& request, std::string_view text) {
    if (HasCookie(request)) { // the address was opened again where it had been opened
        return {Verdict::Kind::Admitted, http::status::see_other, {}, {}};
    }
    if (!common::IsSecret(token, text)) {
        return Refuse(http::status::forbidden, NotAdmitted);
    }
    if (isTokenUsed) {
        return Refuse(http::status::forbidden, TokenIsUsed);
    }
    if (request.method() == http::verb::get) { // a program that previews links asks with HEAD
        isTokenUsed = true;
        return {Verdict::Kind::Admitted,
                http::status::see_other,
                {},
                cookieName + '=' + cookieValue + "; HttpOnly; SameSite=Strict; Path=/"};
    }
    return {Verdict::Kind::Admitted, http::status::see_other, {}, {}};
}

Verdict Gate::Judge(const Request& request) {
    if (request.method() != http::verb::get && request.method() != http::verb::head) {
        return Refuse(http::status::method_not_allowed, "The dashboard only reads: use GET or HEAD.");
    }
    if (request.count(http::field::host) != 1 || !IsOwnHost(View(request[http::field::host]))) {
        return Refuse(http::status::forbidden, "The Host of the request is not this dashboard's.");
    }
    if (const auto origin = request.find(http::field::origin); origin != request.end()) {
        const std::string_view value = View(origin->value());
        if (!value.starts_with(OriginScheme) || !IsOwnHost(value.substr(OriginScheme.size()))) {
            return Refuse(http::status::forbidden, "The request comes from a page that is not this dashboard's.");
        }
    }
    const std::string_view target = View(request.target());
    const auto question = target.find('?');
    const std::string_view path = target.substr(0, question);
    const std::string_view query = question == target.npos ? std::string_view() : target.substr(question + 1);
    if (path == "/" && query.starts_with(TokenQuery)) {
        return JudgeToken(request, query.substr(TokenQuery.size()));
    }
    if (!HasCookie(request)) {
        return Refuse(http::status::unauthorized, NotAdmitted);
    }
    if (FindPageFile(path) != nullptr) {
        return {Verdict::Kind::Page, http::status::ok, {}, {}};
    }
    if (IsRelayed(path)) {
        return {Verdict::Kind::Relayed, http::status::ok, {}, {}};
    }
    return Refuse(http::status::not_found, "There is no such path: the dashboard has /, /v1/... and /metrics.");
}

} // namespace dashboard
