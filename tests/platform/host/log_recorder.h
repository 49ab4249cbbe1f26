#pragma once

#include "bos/logger.h"

#include <mutex>
#include <string>

namespace platform_test {

/// Keeps the log for as long as it exists: a line "LEVEL TEXT" for each record.
class LogRecorder final : public bos::logger::ILogBackEnd {
public:
    LogRecorder() : before(bos::logger::BOSLogger::RootLogger().SetBackEnd(*this)) {}
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;
    /// Requires: no log call under way on another thread.
    ~LogRecorder() override { bos::logger::BOSLogger::RootLogger().SetBackEnd(before); }

    bool IsEnabled(bos::logger::LogLevel) const override { return true; }
    void Write(bos::logger::LogLevel level, const char*, int, const char*, const std::string& message) override {
        const std::lock_guard lock(mutex);
        text += std::to_string(static_cast<int>(level)) + ' ' + message + '\n';
    }

    std::string Text() const {
        const std::lock_guard lock(mutex);
        return text;
    }

private:
    bos::logger::ILogBackEnd& before;
    mutable std::mutex mutex; // guards all below
    std::string text;
};

} // namespace platform_test
