#pragma once

#include "bos/logger.h"

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>

namespace borven_host {

/// Writes one record of the platform's own: `parts` in one line. A fault is logged once, where it starts.
inline void Log(bos::logger::LogLevel level, std::initializer_list<std::string_view> parts,
                const char* file = __builtin_FILE(), int line = __builtin_LINE(),
                const char* function = __builtin_FUNCTION()) {
    auto& logger = bos::logger::BOSLogger::RootLogger();
    if (!logger.IsEnabled(level)) {
        return;
    }
    std::string message;
    for (const std::string_view part : parts) {
        message += part;
    }
    logger.LogImpl(level, file, line, function, message);
}

/// Returns: the system's text for an errno.
inline std::string ErrnoText(int number = errno) {
    char buffer[128];
    return ::strerror_r(number, buffer, sizeof buffer);
}

} // namespace borven_host
