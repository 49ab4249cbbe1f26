#include "support/log_capture.h"

#include "support/journal.h"

#include <thread>
#include <utility>
#include <vector>

namespace test_support {

using bos::logger::BOSLogger;
using bos::logger::LogLevel;

LogCapture::LogCapture() : previous(BOSLogger::RootLogger().SetBackEnd(*this)) {}

LogCapture::~LogCapture() {
    BOSLogger::RootLogger().SetBackEnd(previous);
}

void LogCapture::SetThreshold(int level) {
    const std::lock_guard lock(mutex);
    threshold = level;
}

void LogCapture::Before(std::string linePrefix, std::function<void()> action) {
    const std::lock_guard lock(mutex);
    hooks.push_back({std::move(linePrefix), std::move(action)});
}

std::size_t LogCapture::LevelTests() const {
    const std::lock_guard lock(mutex);
    return levelTests;
}

bool LogCapture::IsEnabled(LogLevel level) const {
    const std::lock_guard lock(mutex);
    ++levelTests;
    return static_cast<int>(level) >= threshold;
}

void LogCapture::Write(LogLevel level, const char* file, int line, const char* function, const std::string& message) {
    LogRecord record{static_cast<int>(level), file, line, function, message, std::this_thread::get_id()};
    std::vector<std::function<void()>> actions;
    {
        const std::lock_guard lock(mutex);
        const std::string text = ToString(record);
        for (const auto& hook : hooks) {
            if (text.starts_with(hook.linePrefix)) {
                actions.push_back(hook.action);
            }
        }
    }
    for (const auto& action : actions) {
        action();
    }
    Journal::Instance().AddLog(std::move(record));
}

} // namespace test_support
