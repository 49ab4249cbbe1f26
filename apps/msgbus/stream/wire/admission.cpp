#include "stream/wire/admission.h"

#include "common/escape.h"
#include "stream/wire/protocol.h"

#include <boost/beast/http/field.hpp>
#include <boost/beast/http/rfc7230.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include <algorithm>
#include <array>
#include <iterator>
#include <stdexcept>

namespace stream {

namespace http = boost::beast::http;

namespace {

std::string_view View(boost::beast::string_view text) {
    return {text.data(), text.size()};
}

std::string InSmallLetters(std::string_view text) {
    std::string small(text);
    std::transform(small.begin(), small.end(), small.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return small;
}

bool IsPort(std::string_view text) {
    return !text.empty() && text.size() <= 5 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// Returns: whether `host`, with or without a port, is a name of this machine that no DNS server has a say in.
bool IsLocal(std::string_view host) {
    for (const std::string_view name : {"localhost", "127.0.0.1", "[::1]"}) {
        if (host == name ||
            (host.starts_with(name) && host[name.size()] == ':' && IsPort(host.substr(name.size() + 1)))) {
            return true;
        }
    }
    return false;
}

/// Returns: the first of the subprotocols that the client offers, in its order, that is spoken here.
std::string ChooseSubprotocol(const Handshake& request) {
    const auto [begin, end] = request.equal_range(http::field::sec_websocket_protocol);
    for (auto field = begin; field != end; ++field) {
        for (const auto offered : http::token_list(field->value())) {
            if (const auto* const found = std::find(std::begin(Subprotocols), std::end(Subprotocols), View(offered));
                found != std::end(Subprotocols)) {
                return std::string(*found);
            }
        }
    }
    return {};
}

Admission Refuse(http::status status, std::string reason) {
    return {status, std::move(reason), {}};
}

} // namespace

AdmissionRules::AdmissionRules(const std::vector<std::string>& origins) {
    for (const auto& origin : origins) {
        std::string small = InSmallLetters(origin);
        const auto scheme = small.find("://");
        if (scheme == std::string::npos || scheme == 0) {
            throw std::invalid_argument("'" + origin +
                                        "' is not the origin of a page; it is like https://app.foxglove.dev");
        }
        if (small.ends_with('/') && small.size() > scheme + 3) {
            small.pop_back();
        }
        if (small.find('/', scheme + 3) != std::string::npos && small != "file://") {
            throw std::invalid_argument("'" + origin + "' has a path; the origin of a page has none");
        }
        allowed.push_back(std::move(small));
    }
}

bool AdmissionRules::Allows(std::string_view origin) const {
    const std::string small = InSmallLetters(origin);
    for (const std::string_view scheme : {"http://", "https://"}) {
        if (small.starts_with(scheme) && IsLocal(std::string_view(small).substr(scheme.size()))) {
            return true;
        }
    }
    return std::find(allowed.begin(), allowed.end(), small) != allowed.end();
}

bool AdmissionRules::Helps(const std::string& option, std::string_view origin) {
    try {
        return AdmissionRules({option}).Allows(origin);
    } catch (const std::invalid_argument&) {
        return false;
    }
}

Admission AdmissionRules::Judge(const Handshake& request) const {
    const auto [originsBegin, originsEnd] = request.equal_range(http::field::origin);
    for (auto origin = originsBegin; origin != originsEnd; ++origin) {
        if (!Allows(View(origin->value()))) {
            const std::string shown = common::Escaped(View(origin->value()));
            return Refuse(http::status::forbidden,
                          "a page of '" + shown + "' may not connect; " +
                              (Helps(shown, View(origin->value()))
                                   ? "'--allow-origin " + shown + "' of msgbus stream lets it in"
                                   : "there is no option that lets this origin in"));
        }
    }
    if (request.count(http::field::host) != 1 || !IsLocal(InSmallLetters(View(request[http::field::host])))) {
        return Refuse(http::status::forbidden, "the Host of the request is not localhost");
    }
    if (!boost::beast::websocket::is_upgrade(request)) {
        return Refuse(http::status::upgrade_required,
                      "this is no page: open the address in Foxglove, as a Foxglove WebSocket, or in PlotJuggler");
    }
    std::string subprotocol = ChooseSubprotocol(request);
    if (subprotocol.empty()) {
        return Refuse(http::status::bad_request,
                      "the client must offer the subprotocol foxglove.websocket.v1 or foxglove.sdk.v1");
    }
    return {http::status::switching_protocols, {}, std::move(subprotocol)};
}

} // namespace stream
