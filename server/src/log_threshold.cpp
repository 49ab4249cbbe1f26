#include "log_threshold.h"

namespace msgbus_server {

using bos::logger::BOSLogger;
using bos::logger::LogLevel;

LogThreshold::LogThreshold(int level) : threshold(level), next(BOSLogger::RootLogger().SetBackEnd(*this)) {}

LogThreshold::~LogThreshold() {
    BOSLogger::RootLogger().SetBackEnd(next);
}

bool LogThreshold::IsEnabled(LogLevel level) const {
    return static_cast<int>(level) >= threshold.load(std::memory_order_relaxed);
}

void LogThreshold::Write(LogLevel level, const char* file, int line, const char* function, const std::string& message) {
    next.Write(level, file, line, function, message);
}

} // namespace msgbus_server
