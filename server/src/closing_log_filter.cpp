#include "closing_log_filter.h"

#include "kn/status.h"

#include <string>
#include <string_view>

namespace msgbus_server {

using bos::logger::BOSLogger;
using bos::logger::LogLevel;

namespace {

/// How the bus's receiving loops report that receive returned KnStatusClosed: the static one by the status, the dynamic
/// ones by a failed check. While only receiving has stopped, no other check of theirs can fail, but for that of a
/// dispatcher which the stop overtakes before it receives.
bool IsReceiveError(std::string_view function, std::string_view message) {
    if (function == "DispatchStatic") {
        static const std::string closed =
            "DispatchStatic: NK transport received the error " + std::to_string(KnStatusClosed);
        return message == closed;
    }
    if (function == "operator()" && message.starts_with("operator(): Check failed - shutdown is true. At ")) {
        return true;
    }
    return (function == "RunIpcDispatcher" || function == "operator()") &&
           message.starts_with(std::string(function) + ": Check failed. At ");
}

/// How the bus reports on the static channel that the client did not wait for the reply. With waits that block, that is
/// each one that a client with a time-out has given up.
bool IsReplyToNoClient(std::string_view function, std::string_view message) {
    static const std::string gone = "DispatchStatic: NK transport reply error " + std::to_string(KnStatusPeerGone);
    return function == "DispatchStatic" && message == gone;
}

} // namespace

ClosingLogFilter::ClosingLogFilter() : next(BOSLogger::RootLogger().SetBackEnd(*this)) {}

ClosingLogFilter::~ClosingLogFilter() {
    BOSLogger::RootLogger().SetBackEnd(next);
}

bool ClosingLogFilter::IsEnabled(LogLevel level) const {
    return next.IsEnabled(level);
}

void ClosingLogFilter::Write(LogLevel level, const char* file, int line, const char* function,
                             const std::string& message) {
    if (level == LogLevel::Error && isClosing.load(std::memory_order_relaxed) && IsReceiveError(function, message)) {
        return;
    }
    if (level == LogLevel::Error && IsReplyToNoClient(function, message)) {
        if (!next.IsEnabled(LogLevel::Debug)) {
            return;
        }
        level = LogLevel::Debug;
    }
    next.Write(level, file, line, function, message);
}

} // namespace msgbus_server
