#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

// The exceptions of the client library. Input that cannot be sent, such as an empty topic, is reported as
// std::invalid_argument instead.

namespace msgbus {

/// Base of the failures below. `what()` is a sentence for people.
class Error : public std::runtime_error {
public:
    /// Returns: the result code of the bus (1 to 10) for RefusedError; a negative platform status (kn/status.h) for the
    /// others.
    std::int32_t Code() const noexcept { return code; }

protected:
    Error(std::int32_t number, const std::string& sentence) : std::runtime_error(sentence), code(number) {}

private:
    std::int32_t code;
};

/// The bus received the request and rejected it.
class RefusedError final : public Error {
public:
    RefusedError(std::int32_t number, const std::string& sentence) : Error(number, sentence) {}
};

/// No server was found, or the server did not accept the connection in time.
class NoServerError final : public Error {
public:
    NoServerError(std::int32_t number, const std::string& sentence) : Error(number, sentence) {}
};

/// The server closed the connection or died. It may or may not have handled the last request.
class ServerGoneError final : public Error {
public:
    ServerGoneError(std::int32_t number, const std::string& sentence) : Error(number, sentence) {}
};

/// A request failed in another way, for example because memory ran out.
class PlatformError final : public Error {
public:
    PlatformError(std::int32_t number, const std::string& sentence) : Error(number, sentence) {}
};

/// Returns: what result code `code` of the bus means, whatever the request was; a sentence for unknown codes too.
std::string DescribeResult(std::int32_t code);

} // namespace msgbus
