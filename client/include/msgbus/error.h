#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

// The exceptions of the client library. Input that cannot be sent, such as an empty topic, is reported as
// std::invalid_argument instead.

namespace msgbus {

/// Base of the failures below. `what()` is a sentence for people.
class __attribute__((visibility("default"))) Error : public std::runtime_error {
public:
    /// Returns: the result code of the bus (1 to 10) for RefusedError; a negative platform status (kn/status.h) for the
    /// others.
    std::int32_t Code() const noexcept { return code; }

protected:
    /// `number` becomes Code(), `sentence` what().
    Error(std::int32_t number, const std::string& sentence) : std::runtime_error(sentence), code(number) {}

private:
    std::int32_t code;
};

/// The bus received the request and rejected it.
class __attribute__((visibility("default"))) RefusedError final : public Error {
public:
    /// `number` becomes Code(), `sentence` what().
    RefusedError(std::int32_t number, const std::string& sentence) : Error(number, sentence) {}
};

/// No server was found, or the server did not accept the connection in time.
class __attribute__((visibility("default"))) NoServerError final : public Error {
public:
    /// `number` becomes Code(), `sentence` what().
    NoServerError(std::int32_t number, const std::string& sentence) : Error(number, sentence) {}
};

/// The server closed the connection or died. It may or may not have handled the last request.
class __attribute__((visibility("default"))) ServerGoneError final : public Error {
public:
    /// `number` becomes Code(), `sentence` what().
    ServerGoneError(std::int32_t number, const std::string& sentence) : Error(number, sentence) {}
};

/// A request was not answered in time. `what()` says whether it was sent: then its outcome is unknown, because the
/// server may have handled it, or may do so later.
class __attribute__((visibility("default"))) TimedOutError final : public Error {
public:
    /// `number` becomes Code(), `sentence` what().
    TimedOutError(std::int32_t number, const std::string& sentence) : Error(number, sentence) {}
};

/// A request failed in another way, for example because memory or descriptors ran out.
class __attribute__((visibility("default"))) PlatformError final : public Error {
public:
    /// `number` becomes Code(), `sentence` what().
    PlatformError(std::int32_t number, const std::string& sentence) : Error(number, sentence) {}
};

/// The values of a topic are of another type than the program expects (msgbus/codec.h). `what()` names both types.
class __attribute__((visibility("default"))) TypeMismatchError final : public Error {
public:
    /// `number` becomes Code(), `sentence` what().
    TypeMismatchError(std::int32_t number, const std::string& sentence) : Error(number, sentence) {}
};

/// Returns: what result code `code` of the bus means, whatever the request was; a sentence for unknown codes too.
__attribute__((visibility("default"))) std::string DescribeResult(std::int32_t code);

} // namespace msgbus
