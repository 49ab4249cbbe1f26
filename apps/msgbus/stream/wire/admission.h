#pragma once

#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/status.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace stream {

using Handshake = boost::beast::http::request<boost::beast::http::empty_body>;

/// What becomes of a request for a connection.
struct Admission {
    boost::beast::http::status status = boost::beast::http::status::switching_protocols;
    std::string reason;      ///< why it is refused; a sentence
    std::string subprotocol; ///< what is spoken

    bool IsGranted() const noexcept { return status == boost::beast::http::status::switching_protocols; }
};

/// Decides who may connect: programs, which send no Origin, pages that this machine serves, and pages that the user has
/// allowed. Any page that is open in the user's browser can reach a port of 127.0.0.1, also under a name that its own
/// DNS server resolves to it; the browser says by Origin which page it is.
class AdmissionRules final {
public:
    /// `origins`: as browsers send them. Throws: std::invalid_argument with a sentence.
    explicit AdmissionRules(const std::vector<std::string>& origins);

    Admission Judge(const Handshake& request) const;

private:
    bool Allows(std::string_view origin) const;
    /// Returns: whether --allow-origin with `option` lets a page of `origin` in.
    static bool Helps(const std::string& option, std::string_view origin);

    std::vector<std::string> allowed; ///< in small letters
};

} // namespace stream
