#pragma once

#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/status.hpp>

#include <cstdint>
#include <string>
#include <string_view>

namespace dashboard {

using Request = boost::beast::http::request<boost::beast::http::empty_body>;

/// What becomes of a request.
struct Verdict {
    enum class Kind {
        Refused,  ///< with `status` and the sentence `reason`
        Admitted, ///< the token was right: sent on to "/", with `cookie`
        Page,     ///< a file of the page
        Relayed,  ///< answered by the server
    };

    Kind kind = Kind::Refused;
    boost::beast::http::status status = boost::beast::http::status::ok;
    std::string reason;
    std::string cookie; ///< the value of Set-Cookie; empty: the browser has it
};

/// Decides which requests are served: those of the browser that has opened the printed address, from the page itself.
/// Other users of this machine reach the port too, and so does every page in the user's browser, also under a name that
/// its own DNS server resolves to 127.0.0.1.
///
/// Threads: one.
class Gate final {
public:
    /// `ownPort`: where the page is served.
    explicit Gate(std::uint16_t ownPort);

    /// Returns: the path and query that lets a browser in, once.
    std::string EntryTarget() const { return "/?token=" + token; }

    Verdict Judge(const Request& request);

private:
    bool IsOwnHost(std::string_view host) const;
    bool HasCookie(const Request& request) const;
    Verdict JudgeToken(const Request& request, std::string_view text);

    std::uint16_t port;
    std::string cookieName;
    std::string token;
    std::string cookieValue;
    bool isTokenUsed = false;
};

} // namespace dashboard
