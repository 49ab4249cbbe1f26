#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <utility>

namespace tua {

/// Base of the framework's exceptions: what happened, optionally a message, and where.
class Exception : public std::exception {
public:
    Exception(const char* sourceFile, std::int32_t sourceLine, std::u16string text)
        : file(sourceFile), line(sourceLine), message(std::move(text)) {}

    const char* what() const noexcept override { return "tua::Exception"; }

    /// Empty when the thrower gave none.
    const std::u16string& Message() const noexcept { return message; }
    /// Static storage; null when the thrower gave none.
    const char* File() const noexcept { return file; }
    std::int32_t Line() const noexcept { return line; }

private:
    const char* file;
    std::int32_t line;
    std::u16string message;
};

/// An internal precondition did not hold.
class CheckFailedException final : public Exception {
public:
    using Exception::Exception;

    const char* what() const noexcept override { return "Check failed"; }
};

} // namespace tua
