#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

// Failures of the client library. Beside these, std::invalid_argument says that the caller's own input cannot be sent.

namespace msgbus {

/// Base of the failures: `what()` is a sentence, Code() the number behind it.
class Error : public std::runtime_error {
public:
    /// A result code of the bus (1 to 10) for RefusedError, a negative platform status (kn/status.h) for the others.
    std::int32_t Code() const noexcept { return code; }

protected:
    Error(std::int32_t number, const std::string& sentence) : std::runtime_error(sentence), code(number) {}

private:
    std::int32_t code;
};

/// The bus answered, and said no.
class RefusedError final : public Error {
public:
    RefusedError(std::int32_t number, const std::string& sentence) : Error(number, sentence) {}
};

/// No server was found, or the one that is there did not accept the connection in time.
class NoServerError final : public Error {
public:
    NoServerError(std::int32_t number, const std::string& sentence) : Error(number, sentence) {}
};

/// The server closed the connection, or died. Whether it took the last request is unknown.
class ServerGoneError final : public Error {
public:
    ServerGoneError(std::int32_t number, const std::string& sentence) : Error(number, sentence) {}
};

/// Anything else that kept a request from being answered.
class PlatformError final : public Error {
public:
    PlatformError(std::int32_t number, const std::string& sentence) : Error(number, sentence) {}
};

/// What result code `code` of the bus means, when nothing more is known about the request.
std::string DescribeResult(std::int32_t code);

} // namespace msgbus
