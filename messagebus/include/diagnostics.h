#pragma once

#include "bos/logger.h"
#include "tua/exception.h"
#include "tua/text.h"

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <string_view>

/// How every source of the bus writes a log line, checks a precondition and describes an exception.
namespace diagnostics {

using bos::logger::LogLevel;

/// Level and place of a log call. Converts from a level, and takes the caller's place then.
struct LogSite {
    // The compiler's built-ins, because std::source_location gives the function's whole signature.
    constexpr LogSite(LogLevel siteLevel, const char* siteFile = __builtin_FILE(), int siteLine = __builtin_LINE(),
                      const char* siteFunction = __builtin_FUNCTION())
        : level(siteLevel), file(siteFile), line(siteLine), function(siteFunction) {}

    LogLevel level;
    const char* file;
    int line;
    const char* function;
};

/// Formats and writes one record if its level is enabled; a disabled level costs one virtual call.
/// Throws: what formatting or the back end throws.
/// Threads: any.
template <typename... Args>
void Log(const LogSite& site, fmt::format_string<Args...> pattern, Args&&... args) {
    auto& logger = bos::logger::BOSLogger::RootLogger();
    if (!logger.IsEnabled(site.level)) {
        return;
    }
    std::string message = fmt::vformat(pattern, fmt::make_format_args(args...));
    logger.LogImpl(site.level, site.file, site.line, site.function, message);
}

/// Throws tua::CheckFailedException with the caller's place and `message` unless `condition` holds. Never logs.
inline void Check(bool condition, std::string_view message = {}, const char* file = __builtin_FILE(),
                  std::int32_t line = __builtin_LINE()) {
    if (!condition) {
        throw tua::CheckFailedException(file, line, tua::text::Cast<std::u16string>(message));
    }
}

/// `exception` as log lines show it: "what - message. At file(line) ", without the parts that it does not have.
inline std::string Describe(const tua::Exception& exception) {
    using tua::text::Cast;
    std::u16string text = Cast<std::u16string>(std::string_view(exception.what()));
    if (!exception.Message().empty()) {
        text += u" - " + exception.Message();
    }
    if (exception.File() != nullptr) {
        text += u". At " + Cast<std::u16string>(std::string_view(exception.File())) + u"(" +
                Cast<std::u16string>(std::string_view(std::to_string(exception.Line()))) + u") ";
    }
    return Cast<std::string>(std::u16string_view(text));
}

/// An exception as an argument of Log: described only when the line is written.
struct Described {
    const tua::Exception& exception;
};

} // namespace diagnostics

template <>
struct fmt::formatter<diagnostics::Described> : fmt::formatter<std::string_view> {
    auto format(const diagnostics::Described& described, fmt::format_context& context) const {
        return fmt::formatter<std::string_view>::format(diagnostics::Describe(described.exception), context);
    }
};
