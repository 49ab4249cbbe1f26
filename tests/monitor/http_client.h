#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

/// A client over a plain socket, which can also do what no well-behaved client does. Every wait ends after a minute,
/// and then as if the connection had ended.
class HttpClient final {
public:
    struct Response {
        int status = 0;                             ///< 0: the connection ended instead
        std::map<std::string, std::string> headers; ///< names in lower case
        std::string body;
    };

    explicit HttpClient(const std::string& socketPath);
    explicit HttpClient(std::uint16_t port);
    HttpClient(HttpClient&& other) noexcept;
    HttpClient& operator=(HttpClient&&) = delete;
    ~HttpClient();

    /// Returns: false when the connection has ended.
    bool Send(std::string_view bytes);
    /// Sends a request with this header and no body. `headers`: lines that end in CR LF.
    Response Get(std::string_view target, std::string_view headers = {}, std::string_view method = "GET");
    Response Receive(bool hasBody = true);
    /// Returns: what comes up to and with `end`; nothing when the connection ends before.
    std::optional<std::string> ReceiveUntil(std::string_view end);
    /// Returns: whether the server closes the connection without sending more.
    bool AwaitEnd();

    void EndSending();
    /// Asks for a receive buffer that holds little.
    void HoldLittle();

private:
    bool ReceiveMore();

    int descriptor = -1;
    std::string received;
};
